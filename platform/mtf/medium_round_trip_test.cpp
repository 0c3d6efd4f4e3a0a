#include "platform/mtf/medium_test_support.h"

#include "platform/mtf/medium_source.h"
#include "platform/mtf/object_stream.h"

#include <algorithm>

namespace {

std::vector<Test_Object> objects_of_sizes(const std::vector<size_t>& sizes, bool compressible) {
  std::vector<Test_Object> objects;
  for (size_t i = 0; i < sizes.size(); ++i)
    objects.push_back(
        {"dir" + std::to_string(i % 3) + "/object" + std::to_string(i),
         compressible ? prose(sizes[i], static_cast<unsigned>(i)) : noise(sizes[i], static_cast<unsigned>(i))});
  return objects;
}

const std::vector<size_t> EDGE_SIZES = {0,    1,    2,         3,     4,         5,         511,           1023,
                                        1024, 1025, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK, 3 * CHUNK + 17};

struct Codec_Case {
  MTF_Compression compression;
  bool compressible;
  Way way;
};

class medium_round_trip : public ::testing::TestWithParam<Codec_Case> {};

TEST_P(medium_round_trip, objects_of_all_sizes_come_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto objects = objects_of_sizes(EDGE_SIZES, GetParam().compressible);
  const auto places = write_medium(path, objects, {GetParam().compression, 1}, GetParam().way);
  expect_round_trip(path, objects, places);
  if (GetParam().compression != MTF_COMPRESSION_NONE && GetParam().compressible)
    EXPECT_LT(places.back().stored, places.back().size / 2);
  else
    EXPECT_GT(places.back().stored, places.back().size);
}

INSTANTIATE_TEST_SUITE_P(
    codecs, medium_round_trip,
    ::testing::Values(
        Codec_Case{MTF_COMPRESSION_NONE, false, Way::IMAGE}, Codec_Case{MTF_COMPRESSION_NONE, true, Way::STREAMED},
        Codec_Case{MTF_COMPRESSION_AUTO, false, Way::IMAGE}, Codec_Case{MTF_COMPRESSION_AUTO, true, Way::IMAGE},
        Codec_Case{MTF_COMPRESSION_AUTO, false, Way::STREAMED}, Codec_Case{MTF_COMPRESSION_AUTO, true, Way::STREAMED},
        Codec_Case{MTF_COMPRESSION_ZSTD, false, Way::IMAGE}, Codec_Case{MTF_COMPRESSION_ZSTD, true, Way::IMAGE},
        Codec_Case{MTF_COMPRESSION_ZSTD, false, Way::STREAMED}, Codec_Case{MTF_COMPRESSION_ZSTD, true, Way::STREAMED},
        Codec_Case{MTF_COMPRESSION_LZOP, false, Way::IMAGE}, Codec_Case{MTF_COMPRESSION_LZOP, true, Way::IMAGE},
        Codec_Case{MTF_COMPRESSION_LZOP, false, Way::STREAMED}, Codec_Case{MTF_COMPRESSION_LZOP, true, Way::STREAMED}));

TEST(medium, both_ways_of_writing_give_the_same_bytes) {
  Scratch_Folder folder;
  for (const MTF_Compression compression : {MTF_COMPRESSION_NONE, MTF_COMPRESSION_AUTO, MTF_COMPRESSION_ZSTD}) {
    const auto objects = objects_of_sizes(EDGE_SIZES, true);
    write_medium(folder.file("image"), objects, {compression, 3}, Way::IMAGE);
    write_medium(folder.file("streamed"), objects, {compression, 3}, Way::STREAMED);
    EXPECT_TRUE(load(folder.file("image")) == load(folder.file("streamed"))) << compression;
  }
}

/// The id of the stream that holds the content of the medium's only object.
uint32_t content_stream(const std::string& path, unsigned long long offset) {
  std::string error;
  const auto source = Medium_Source::open(path, error);
  EXPECT_TRUE(source) << error;
  Medium_Window window(*source, 4096);
  Object_Start start;
  EXPECT_TRUE(read_object_start(window, offset, start, error)) << error;
  return start.content.header.id;
}

// Readers elsewhere extract what stands in a stream STAN, and nothing else.
TEST(medium, first_chunk_decides_whether_an_object_is_stored_plain) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::string dense = noise(CHUNK, 1), loose = prose(CHUNK, 2);
  const struct {
    std::string content;
    bool framed, framed_auto;
  } cases[] = {{noise(3 * CHUNK + 5, 3), false, false},
               {prose(3 * CHUNK + 5, 4), true, true},
               {dense + loose + loose, false, false},
               {loose + dense + dense, true, true},
               {noise(CHUNK + 1, 5), false, false},
               {noise(1000, 6), false, false},
               {noise(CHUNK - 50000, 7) + std::string(50000 + CHUNK, 'x'), true, false}};
  for (const MTF_Compression compression : {MTF_COMPRESSION_ZSTD, MTF_COMPRESSION_LZOP, MTF_COMPRESSION_AUTO})
    for (const auto& one : cases) {
      const std::vector<Test_Object> objects = {{"object", one.content}};
      const bool framed = compression == MTF_COMPRESSION_AUTO ? one.framed_auto : one.framed;
      std::string bytes[2];
      for (const Way way : {Way::IMAGE, Way::STREAMED}) {
        const auto places = write_medium(path, objects, {compression, 1}, way);
        EXPECT_EQ(four_text(content_stream(path, places[0].offset)), framed ? "OBSZ" : "STAN")
            << compression << " " << (&one - cases);
        expect_round_trip(path, objects, places);
        bytes[way == Way::STREAMED] = load(path);
      }
      EXPECT_TRUE(bytes[0] == bytes[1]) << compression << " " << (&one - cases);
    }
}

TEST(medium, every_length_that_moves_the_padding_over_a_block_boundary_comes_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::vector<size_t> sizes;
  for (size_t size = 0; size <= 1100; ++size)
    sizes.push_back(size);
  const auto objects = objects_of_sizes(sizes, false);
  expect_round_trip(path, objects, write_medium(path, objects, {}, Way::IMAGE));
}

TEST(medium, keys_are_bytes_and_come_back_exactly) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::string deep(500, 'd');
  std::vector<Test_Object> objects;
  for (const std::string& key : std::vector<std::string>{"plain",
                                                         "sp ace+%&'",
                                                         "\xC3\xA9 composed",
                                                         "e\xCC\x81 decomposed",
                                                         "\xF0\x9F\x98\x80 astral",
                                                         "not utf-8 \xFF\xFE\x80",
                                                         "half \xED\xA0\x80",
                                                         std::string("nul \0 inside", 12),
                                                         "control \x01\x1F\x7F",
                                                         "//",
                                                         "a//b",
                                                         "a/",
                                                         "/leading",
                                                         "./x",
                                                         "../x",
                                                         "..",
                                                         ".",
                                                         std::string(1024, 'k'),
                                                         deep + "/" + deep + "/x",
                                                         deep + "\xFF/" + std::string(500, '\xC3'),
                                                         "looks~0123456789abcdef",
                                                         "back\\slash",
                                                         "FILEFILEFILE\xFF/DIRBDIRB/" + std::string(900, 'T'),
                                                         std::string(300, 'a') + "/" + std::string(300, 'b')})
    objects.push_back({key, "content of " + key});
  std::string many;
  for (int i = 0; i < 400; ++i)
    many += "d/";
  objects.push_back({many + "deep", "at the bottom"});
  expect_round_trip(path, objects, write_medium(path, objects, {}, Way::IMAGE));
}

TEST(medium, a_cancelled_object_leaves_no_trace) {
  Scratch_Folder folder;
  const auto objects = objects_of_sizes({10, 5000, 3 * CHUNK}, false);
  write_medium(folder.file("without"), objects, {}, Way::STREAMED);
  for (const size_t come : {size_t(0), size_t(100), size_t(CHUNK), size_t(2 * CHUNK + 5)}) {
    for (const MTF_Compression compression : {MTF_COMPRESSION_NONE, MTF_COMPRESSION_ZSTD}) {
      std::string error;
      const std::string path = folder.file("with");
      ::unlink(path.c_str());
      const auto writer = Medium_Writer::create(path, test_identity(), error);
      ASSERT_TRUE(writer) << error;
      for (size_t i = 0; i < objects.size(); ++i) {
        ASSERT_TRUE(writer->set_directory(directory_of("bucket/" + objects[i].key)));
        const unsigned long long before = writer->size();
        Object_Head head;
        head.path = "bucket/cancelled";
        head.size = 4 * CHUNK;
        ASSERT_TRUE(writer->begin_object(head, {compression, 1}));
        const std::string content = noise(come, 9);
        ASSERT_TRUE(writer->write(content.data(), content.size()));
        ASSERT_TRUE(writer->cancel_object());
        EXPECT_EQ(writer->size(), before);
        Stored_Object stored;
        ASSERT_TRUE(put_object(*writer, objects[i], i + 1, {}, Way::STREAMED, stored, error));
      }
      ASSERT_TRUE(writer->finish()) << writer->error();
      EXPECT_TRUE(load(path) == load(folder.file("without"))) << come;
    }
  }
}

TEST(medium, content_of_another_length_than_announced_is_refused_and_the_medium_goes_on) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::string error;
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  ASSERT_TRUE(writer) << error;
  Object_Head head;
  head.path = "bucket/x";
  head.size = 10;
  Stored_Object stored;
  ASSERT_TRUE(writer->begin_object(head, {}));
  ASSERT_TRUE(writer->write("123456789", 9));
  EXPECT_FALSE(writer->end_object(stored));
  EXPECT_EQ(writer->error(), "");
  ASSERT_TRUE(writer->begin_object(head, {}));
  ASSERT_TRUE(writer->write("123456789", 9));
  EXPECT_FALSE(writer->write("01", 2));
  EXPECT_TRUE(writer->cancel_object());
  EXPECT_EQ(writer->error(), "");
  EXPECT_EQ(writer->objects(), 0u);
  const std::vector<Test_Object> objects = {{"y", "good"}};
  std::vector<Stored_Object> places(1);
  ASSERT_TRUE(put_object(*writer, objects[0], 1, {}, Way::IMAGE, places[0], error));
  ASSERT_TRUE(writer->finish());
  EXPECT_FALSE(writer->finish());
  expect_round_trip(path, objects, places);
}

// Compressed zeros take little room, so that more than 32 bits of content fit into a test.
TEST(medium, an_object_of_more_than_four_gibibytes_comes_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::string error;
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  ASSERT_TRUE(writer) << error;
  const std::string zeros(4 * CHUNK, '\0');
  Object_Head head;
  head.path = "bucket/zeros";
  head.size = (1ull << 32) + 5;
  Stored_Object stored;
  ASSERT_TRUE(writer->begin_object(head, {MTF_COMPRESSION_ZSTD, 1}));
  for (unsigned long long at = 0; at < head.size; at += zeros.size())
    ASSERT_TRUE(
        writer->write(zeros.data(), static_cast<size_t>(std::min<unsigned long long>(zeros.size(), head.size - at))));
  ASSERT_TRUE(writer->end_object(stored)) << writer->error();
  ASSERT_TRUE(writer->finish()) << writer->error();
  EXPECT_EQ(stored.size, head.size);
  EXPECT_LT(stored.stored, head.size / 100);

  const auto reader = Medium_Reader::open(path, 0, error);
  ASSERT_TRUE(reader) << error;
  const auto object = reader->object(stored.offset, error);
  ASSERT_TRUE(object) << error;
  EXPECT_EQ(object->head().size, head.size);
  std::vector<char> buffer(zeros.size());
  unsigned long long come = 0;
  Read_Outcome outcome = Read_Outcome::MORE;
  while (outcome == Read_Outcome::MORE) {
    size_t got = 0;
    outcome = object->read(buffer.data(), buffer.size(), got);
    come += got;
  }
  EXPECT_EQ(outcome, Read_Outcome::END) << object->error();
  EXPECT_EQ(come, head.size);
}

} // namespace
