#include "platform/mtf/medium_rules.h"

#include "platform/mtf/changed_medium_test.h"

using namespace MTF_Format;

namespace {

constexpr uint32_t DESCRIPTORS[] = {TAPE, SSET, VOLB, DIRB, FILE_, ESET};

TEST(medium_rules, what_every_block_must_say_of_itself_is_checked) {
  Changed_Medium medium;
  for (const uint32_t type : DESCRIPTORS) {
    EXPECT_EQ(medium.change(type, [](unsigned char*) {}).problem(), "");
    const auto changed = [&](unsigned at, unsigned char value) {
      return medium.change(type, [&](unsigned char* block) { block[at] = value; }).problem();
    };
    EXPECT_TRUE(tells(changed(4, 1), "continued")) << four_text(type);
    EXPECT_TRUE(tells(changed(4, 8), "last of its medium")) << four_text(type);
    EXPECT_TRUE(tells(changed(10, 14), "operating system 14")) << four_text(type);
    EXPECT_TRUE(tells(changed(11, 1), "version 1")) << four_text(type);
    EXPECT_TRUE(tells(changed(44, 2), "has data of one")) << four_text(type);
    EXPECT_TRUE(tells(changed(48, 1), "strings are of the type 1")) << four_text(type);
  }
  EXPECT_NE(medium.change(SFMB, [](unsigned char* block) { block[4] = 1; }).first_problem(), "");
  EXPECT_NE(medium.change(SFMB, [](unsigned char* block) { block[10] = 14; }).first_problem(), "");
}

TEST(medium_rules, fields_that_readers_elsewhere_need_are_checked) {
  Changed_Medium medium;
  const auto number = [&](uint32_t type, unsigned at, uint16_t value) {
    return medium.change(type, [&](unsigned char* block) { put16(block + at, value); }).problem();
  };
  EXPECT_TRUE(tells(number(TAPE, 56, 0), "filemarks are blocks"));
  EXPECT_TRUE(tells(number(TAPE, 64, 1), "size of filemark blocks as 1 times"));
  EXPECT_TRUE(tells(number(TAPE, 84, 512), "size of logical blocks as 512"));
  EXPECT_TRUE(tells(number(TAPE, 60, 2), "sequence number 2"));
  EXPECT_TRUE(tells(number(TAPE, 66, 1), "announces a catalog"));
  EXPECT_TRUE(tells(number(TAPE, 80, 0), "names no software"));
  EXPECT_TRUE(tells(number(SSET, 62, 2), "not the first set"));
  EXPECT_TRUE(tells(number(SSET, 80, 7), "not the first set"));
  EXPECT_TRUE(tells(number(SSET, 95, 4), "not said to be UTC"));
  EXPECT_TRUE(tells(number(VOLB, 52, 0), "of which kind"));
  EXPECT_TRUE(tells(number(VOLB, 52, 4 | 8), "of which kind"));
  EXPECT_TRUE(tells(number(VOLB, 56, 0), "device name is empty"));
  EXPECT_TRUE(tells(number(DIRB, 80, 0), "does not end with a NUL"));
  EXPECT_TRUE(tells(number(FILE_, 84, 0), "name is empty"));
  EXPECT_TRUE(tells(number(FILE_, 84, 3), "lies where none can be"));
  EXPECT_TRUE(tells(number(FILE_, 86, 20), "lies where none can be"));
  EXPECT_TRUE(tells(number(VOLB, 58, 2000), "lies where none can be"));
  EXPECT_TRUE(tells(number(ESET, 78, 2), "another set"));
}

TEST(medium_rules, streams_that_go_on_from_elsewhere_or_in_ways_of_their_own_are_told) {
  Changed_Medium medium;
  const auto format = [&](uint32_t type, uint32_t stream, uint16_t value) {
    return medium.change_stream(type, stream, [&](unsigned char* header) { put16(header + 6, value); }).problem();
  };
  EXPECT_TRUE(tells(format(FILE_, STAN, 1), "go on from another medium"));
  EXPECT_TRUE(tells(format(FILE_, STAN, 2), "variable length"));
  EXPECT_TRUE(tells(format(FILE_, STAN, 0x10), "compressed"));
  EXPECT_TRUE(tells(format(DIRB, OBSC, 1), "go on from another medium"));
  EXPECT_TRUE(tells(format(ESET, OBST, 8), "encrypted"));
  EXPECT_TRUE(tells(medium.change_stream(FILE_, STAN, [](unsigned char* header) { put16(header + 4, 8); }).problem(),
                    "attributes of a file system"));
}

// A medium of the first version could show what its catalog's copy holds.
TEST(medium_rules, a_block_type_at_a_boundary_is_told) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::string error;
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  ASSERT_TRUE(writer) << error;
  ASSERT_TRUE(writer->finish());
  std::string bytes = load(path);
  // The padding of the end of the set, made a stream of three blocks with a text in it.
  const size_t end = bytes.size() - 2 * FLB;
  const size_t spad = bytes.find("SPAD", end);
  std::string streams;
  const size_t first = spad - end;
  append_stream_header(streams, four("OBSQ"), 0, 2 * FLB);
  std::string data(2 * FLB, '.');
  const size_t boundary = FLB - first - STREAM_HEADER;
  data.replace(boundary, 4, "FILE");
  streams += data;
  append_spad(streams, spad);
  const std::string last = bytes.substr(bytes.size() - FLB);
  bytes.resize(spad);
  bytes += streams;
  const size_t mark = bytes.size();
  bytes += last;
  put64(bytes_at(bytes, mark + 20), mark / FLB);
  seal_dblk_header(bytes_at(bytes, mark));
  save(path, bytes);
  const auto problems = problems_of(path);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].offset, end + FLB);
  EXPECT_TRUE(tells(problems[0].message, "inside a block FILE seems to begin")) << problems[0].message;
}

} // namespace
