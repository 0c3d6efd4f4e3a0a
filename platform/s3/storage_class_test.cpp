#include "platform/s3/storage_class.h"

#include <gtest/gtest.h>

namespace {

TEST(storage_class, archives_are_known_however_they_are_spelled) {
  for (const char* name : {"GLACIER", "DEEP_ARCHIVE", "ARCHIVE", "Archive", "COLD_ARCHIVE", "ColdArchive",
                           "DeepColdArchive", "DEEP_COLD_ARCHIVE"})
    EXPECT_TRUE(s3::needs_thaw(name, "s3.example.com")) << name;
}

TEST(storage_class, what_reads_at_once_is_none) {
  for (const char* name : {"", "STANDARD", "STANDARD_IA", "ONEZONE_IA", "GLACIER_IR", "INTELLIGENT_TIERING",
                           "REDUCED_REDUNDANCY", "NEARLINE", "COLDLINE", "COLD", "WARM", "ICE"})
    EXPECT_FALSE(s3::needs_thaw(name, "s3.example.com")) << name;
}

TEST(storage_class, same_name_may_read_at_once_elsewhere) {
  EXPECT_FALSE(s3::needs_thaw("ARCHIVE", "storage.googleapis.com"));
  EXPECT_TRUE(s3::needs_thaw("GLACIER", "storage.googleapis.com"));
  EXPECT_FALSE(s3::needs_thaw("GLACIER", "storage.yandexcloud.net"));
  EXPECT_TRUE(s3::needs_thaw("GLACIER", "googleapis.com.example.com"));
}

} // namespace
