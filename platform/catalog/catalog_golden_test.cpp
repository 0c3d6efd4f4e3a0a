#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

// Catalogs of every version of the format, written once: they read for ever.

namespace fs = std::filesystem;

namespace {

struct Golden_Object {
  const char* path;
  unsigned set;
  unsigned flags;
  const char* common;
  const char* own;
};

const Golden_Object OBJECTS[] = {{"bucket/first", 0, 0, "", ""},
                                 {"bucket/a/unchanged", 1, 0, "content-type=text/plain", "etag=1"},
                                 {"bucket/a/unseen", 1, catalog::FLAG_UNSEEN, "content-type=text/plain", "etag=2"},
                                 {"bucket/a//odd \xff", 0, catalog::FLAG_FRESH, "", "etag=3"}};
constexpr unsigned long long DAY = 86400;

/// The folder inside the source tree: tests run from anywhere in it or in a build folder under it.
std::string golden_folder() {
  std::string up;
  for (int i = 0; i < 8; ++i, up += "../")
    if (::access((up + "tests/golden").c_str(), R_OK) == 0)
      return fs::absolute(up + "tests/golden/catalogs").lexically_normal().string();
  return "tests/golden/catalogs";
}

Catalog_Object object_of(size_t index) {
  const Golden_Object& golden = OBJECTS[index];
  Catalog_Object object;
  object.path = golden.path;
  object.ordinal = index * 2 + 1;
  object.size = 1000 + index;
  object.mtime = static_cast<long long>(DAY * (index + 1));
  object.set = golden.set;
  object.channel = static_cast<unsigned>(index % 2);
  object.offset = 4096 * (index + 1);
  object.stored = 2048;
  std::memset(object.sha256, static_cast<int>(index + 1), sizeof object.sha256);
  object.flags = golden.flags;
  object.attributes.common = golden.common;
  object.attributes.own = golden.own;
  return object;
}

/// Makes the catalog of a version anew where there is none.
void make(const std::string& folder, int version) {
  std::string error;
  fs::create_directories(folder);
  const auto writer = Catalog_Writer::create(folder, error);
  ASSERT_TRUE(writer) << error;
  ASSERT_TRUE(writer->add_set({0, "own-set", "host/resource/second", 2}));
  ASSERT_TRUE(writer->add_set({1, "base-set", "host/resource/first", 1}));
  for (size_t i = 0; i < std::size(OBJECTS); ++i) {
    const Catalog_Object object = object_of(i);
    ASSERT_TRUE(writer->add_object(object));
    const std::string parent = object.path.substr(0, object.path.rfind('/') + 1);
    ASSERT_TRUE(writer->add_visit({parent, object.ordinal, object.ordinal, true}));
  }
  ASSERT_TRUE(writer->add_folder("bucket/empty/"));
  ASSERT_TRUE(writer->add_problem({Catalog_Problem::FAILED, "bucket/lost", 5, "it could not be read"}));
  ASSERT_TRUE(writer->add_deletion({"bucket/gone", 77, 3 * DAY}));
  ASSERT_TRUE(writer->finish()) << writer->error();
  std::string older;
  if (version < catalog::DELETIONS_SINCE)
    older += "DROP TABLE deletions; DELETE FROM meta WHERE name='deletions';";
  if (version < catalog::ATTRIBUTES_SINCE)
    older += "DROP TABLE attributes; ALTER TABLE objects DROP COLUMN own; ALTER TABLE objects DROP COLUMN attributes;";
  if (older.empty())
    return;
  older += "PRAGMA user_version=" + std::to_string(version) + "; VACUUM";
  Catalog_Db db;
  ASSERT_TRUE(db.open(folder + "/" + catalog::FILE_NAME, SQLITE_OPEN_READWRITE, error)) << error;
  ASSERT_TRUE(db.execute(older.c_str(), error) && db.close(error)) << error;
}

class Golden_Catalog : public testing::TestWithParam<int> {};

TEST_P(Golden_Catalog, reads_for_ever) {
  const int version = GetParam();
  const std::string folder = golden_folder() + "/version" + std::to_string(version);
  if (std::getenv("WRITE_GOLDEN_MEDIA") != nullptr && !fs::exists(folder))
    make(folder, version);
  std::string error;
  const auto reader = Catalog_Reader::open(folder, error);
  ASSERT_TRUE(reader) << error;
  EXPECT_TRUE(reader->check_pages(error)) << error;
  EXPECT_EQ("own-set", reader->set_uuid());
  ASSERT_EQ(2u, reader->sets().size());
  EXPECT_EQ("host/resource/first", reader->sets()[1].uri);
  EXPECT_EQ(std::size(OBJECTS), reader->counts().objects);
  EXPECT_EQ(4006u, reader->counts().bytes);
  EXPECT_EQ(4096u, reader->counts().stored);
  EXPECT_TRUE(reader->has_folder("bucket/empty/", error));

  size_t at = 0;
  ASSERT_TRUE(reader->walk(
      "",
      [&](const Catalog_Object& found) {
        const Catalog_Object want = object_of(at++);
        EXPECT_EQ(want.path, found.path);
        EXPECT_EQ(want.ordinal, found.ordinal);
        EXPECT_EQ(want.size, found.size);
        EXPECT_EQ(want.mtime, found.mtime);
        EXPECT_EQ(want.set, found.set);
        EXPECT_EQ(want.channel, found.channel);
        EXPECT_EQ(want.offset, found.offset);
        EXPECT_EQ(want.stored, found.stored);
        EXPECT_EQ(0, std::memcmp(want.sha256, found.sha256, sizeof want.sha256));
        EXPECT_EQ(want.flags, found.flags);
        EXPECT_EQ(version < catalog::ATTRIBUTES_SINCE ? "" : want.attributes.common, found.attributes.common);
        EXPECT_EQ(version < catalog::ATTRIBUTES_SINCE ? "" : want.attributes.own, found.attributes.own);
        return true;
      },
      error))
      << error;
  EXPECT_EQ(std::size(OBJECTS), at);

  std::vector<std::string> told;
  ASSERT_TRUE(reader->problems([&](const Catalog_Problem& one) { return told.push_back(one.path), true; }, error));
  ASSERT_TRUE(reader->deletions([&](const Catalog_Deletion& one) { return told.push_back(one.path), true; }, error));
  std::vector<std::string> want = {"bucket/lost"};
  if (version >= catalog::DELETIONS_SINCE)
    want.push_back("bucket/gone");
  EXPECT_EQ(want, told);
}

INSTANTIATE_TEST_SUITE_P(versions, Golden_Catalog, testing::Range(1, catalog::FORMAT_VERSION + 1));

} // namespace
