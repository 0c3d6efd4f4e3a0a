// Objects around the size that `size_t` can hold: refused by name where they do not fit, exact where they do.
#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace {

using module_testing::Fake_S3_Service;
using module_testing::Log_Sink;

constexpr ACE_UINT64 GIB = 1ull << 30;
constexpr ACE_UINT64 FIVE_GIB = 5 * GIB;
constexpr bool FIVE_GIB_FIT = std::numeric_limits<size_t>::max() >= FIVE_GIB;
constexpr ACE_UINT64 MOST_OF_32_BITS = 0xFFFFFFFF;

/// Claims to deliver whatever is asked for, and breaks off after `bytes`.
class Claimed_Body : public HTTP_Connection {
public:
  explicit Claimed_Body(ACE_UINT64 bytes) : left_(bytes) {}
  State state() const override { return left_ > 0 ? HEADERS_READ : CLOSED; }
  size_t recv(void*, size_t size, const ACE_Time_Value*) override {
    const size_t count = static_cast<size_t>(std::min<ACE_UINT64>(size, left_));
    left_ -= count;
    return count;
  }
  void close() override { left_ = 0; }

private:
  ACE_UINT64 left_;
};

/// One object of `size` bytes, of which every answer gives at the most `per_answer`.
class One_Object : public Fake_S3_Service {
public:
  One_Object(ACE_UINT64 size, ACE_UINT64 per_answer) : size_(size), per_answer_(per_answer) {}
  HTTP_Connection_var get_object(const char*, const char*, ACE_UINT64 offset, S3_Object* object) override {
    offsets.push_back(offset);
    if (object != nullptr) {
      object->exists = true;
      object->size = size_;
    }
    return HTTP_Connection_var(new Claimed_Body(std::min(per_answer_, size_ - offset)));
  }
  std::vector<ACE_UINT64> offsets;

private:
  const ACE_UINT64 size_;
  const ACE_UINT64 per_answer_;
};

/// Reads to the end in pieces of `piece` bytes, none of which is written to.
ACE_UINT64 read_all(OBS_File_Reader& reader, size_t piece, ACE_UINT64 size) {
  char byte = 0;
  ACE_UINT64 total = 0;
  while (total < size) {
    MTF::Buffer buffer(&byte, static_cast<size_t>(std::min<ACE_UINT64>(piece, size - total)));
    if (reader.read(buffer) != 0)
      break;
    total += buffer.used();
  }
  return total;
}

TEST(object_width, object_beyond_size_t_is_not_opened_and_named) {
  const auto service = std::make_shared<One_Object>(FIVE_GIB, FIVE_GIB);
  OBS_File_Reader reader(service);
  Log_Sink log;
  EXPECT_EQ(FIVE_GIB_FIT ? 0 : 1, reader.open("/bucket/huge"));
  EXPECT_EQ(FIVE_GIB_FIT, reader.is_open());
  MTF::File_Blk blk;
  MTF::Callback_Stat stat;
  unsigned long long size = 0;
  EXPECT_EQ(FIVE_GIB_FIT, reader.handle_file_blk(blk, size, stat));
  if (FIVE_GIB_FIT) {
    EXPECT_EQ(FIVE_GIB, size);
    EXPECT_EQ(FIVE_GIB, stat.size);
    EXPECT_EQ(FIVE_GIB, blk.hdr().size());
    EXPECT_TRUE(log.empty());
  } else {
    EXPECT_EQ(1u, log.count(LM_ERROR, "'/bucket/huge' is too large to be read here: 5368709120 bytes.\n"));
  }
}

TEST(object_width, body_cut_beyond_4_gib_is_resumed_from_where_it_broke) {
  if (!FIVE_GIB_FIT)
    GTEST_SKIP() << "such an object is refused here";
  const ACE_UINT64 cut = 4 * GIB + 12345;
  const auto service = std::make_shared<One_Object>(FIVE_GIB, cut);
  OBS_File_Reader reader(service);
  ASSERT_EQ(0, reader.open("/bucket/huge"));
  EXPECT_EQ(FIVE_GIB, read_all(reader, size_t{1} << 20, FIVE_GIB));
  EXPECT_EQ((std::vector<ACE_UINT64>{0, cut}), service->offsets);
}

TEST(object_width, largest_object_of_32_bits_is_read_whole_and_resumed_near_its_end) {
  const ACE_UINT64 cut = MOST_OF_32_BITS - 1;
  const auto service = std::make_shared<One_Object>(MOST_OF_32_BITS, cut);
  OBS_File_Reader reader(service);
  ASSERT_EQ(0, reader.open("/bucket/large"));
  EXPECT_EQ(MOST_OF_32_BITS, read_all(reader, size_t{1} << 20, MOST_OF_32_BITS));
  EXPECT_EQ((std::vector<ACE_UINT64>{0, cut}), service->offsets);
}

class Accepting_Writer : public S3_IWriter {
public:
  int write(const char*, size_t length) override { return static_cast<int>(length); }
  bool close() override { return true; }
};

class Recording_Client : public S3_Client {
public:
  S3_IWriter_ptr upload(const std::string&, const std::string& key, size_t size) override {
    uploads.emplace_back(key, size);
    return S3_IWriter_ptr(new Accepting_Writer);
  }
  std::vector<std::pair<std::string, ACE_UINT64>> uploads;
};

TEST(object_width, object_beyond_size_t_is_not_uploaded_and_named) {
  Recording_Client client;
  const Buckets_Mapper mapper;
  OBS_File_Writer writer(client, mapper);
  Log_Sink log;
  EXPECT_EQ(FIVE_GIB_FIT ? MTF::E_OK : MTF::E_SKIP, writer.open("/bucket/huge", FIVE_GIB));
  EXPECT_EQ(FIVE_GIB_FIT, writer.is_open());
  if (FIVE_GIB_FIT) {
    ASSERT_EQ(1u, client.uploads.size());
    EXPECT_EQ(FIVE_GIB, client.uploads[0].second);
  } else {
    EXPECT_TRUE(client.uploads.empty()) << "not even for the low bits of its size";
    EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to open OBS writer(, huge, size: 5368709120).\n"));
  }
}

TEST(object_width, largest_object_of_32_bits_is_uploaded_with_its_size) {
  Recording_Client client;
  const Buckets_Mapper mapper;
  OBS_File_Writer writer(client, mapper);
  EXPECT_EQ(MTF::E_OK, writer.open("/bucket/large", MOST_OF_32_BITS));
  ASSERT_EQ(1u, client.uploads.size());
  EXPECT_EQ(MOST_OF_32_BITS, client.uploads[0].second);
}

} // namespace
