#include "platform/mtf/medium_rules.h"

#include "platform/mtf/medium_test_support.h"
#include "platform/mtf/object_stream.h"

using namespace MTF_Format;

namespace {

/// Changes a medium as somebody does who knows the format: all checks are made anew.
class Changed_Medium {
public:
  Changed_Medium() : path_(folder_.file("medium")) {
    write_medium(path_, {{"folder/hello.txt", "Hello, MTF!\n"}}, {}, Way::IMAGE);
    bytes_ = load(path_);
  }
  /// Of the `number`th block of that type.
  size_t block(uint32_t type, unsigned number = 0) const {
    for (size_t at = 0; at < bytes_.size(); at += FLB) {
      Dblk_Header header;
      if (header.parse(bytes_of(bytes_) + at) && header.type == type && number-- == 0)
        return at;
    }
    ADD_FAILURE() << "no block " << four_text(type);
    return 0;
  }
  /// The one problem that the strict check finds when `change` was made to a block; empty when it finds none.
  std::string problem(uint32_t type, const std::function<void(unsigned char*)>& change) {
    std::string changed = bytes_;
    unsigned char* const at = bytes_at(changed, block(type));
    change(at);
    seal_dblk_header(at);
    const unsigned first = get16(at + 8);
    if (type == FILE_)
      place_object(at, {get64(at + 20), get32(at + 36), get32(at + 76), get32(at + 80)});
    else if (type != SFMB)
      put64(at + first + STREAM_HEADER, block_check(at, first));
    save(path_, changed);
    const auto problems = problems_of(path_);
    EXPECT_LE(problems.size(), 1u);
    return problems.empty() ? std::string() : problems.front().message;
  }
  std::string stream_problem(uint32_t type, uint32_t stream, const std::function<void(unsigned char*)>& change) {
    std::string changed = bytes_;
    unsigned char id[4];
    put32(id, stream);
    const size_t at = changed.find(std::string(id, id + 4), block(type));
    unsigned char* const header = bytes_at(changed, at);
    change(header);
    put16(header + 20, xor_words(header, 10));
    save(path_, changed);
    const auto problems = problems_of(path_);
    return problems.empty() ? std::string() : problems.front().message;
  }

private:
  Scratch_Folder folder_;
  std::string path_;
  std::string bytes_;
};

bool tells(const std::string& message, const std::string& part) {
  return message.find(part) != std::string::npos;
}

constexpr uint32_t DESCRIPTORS[] = {TAPE, SSET, VOLB, DIRB, FILE_, ESET};

TEST(medium_rules, what_every_block_must_say_of_itself_is_checked) {
  Changed_Medium medium;
  for (const uint32_t type : DESCRIPTORS) {
    EXPECT_EQ(medium.problem(type, [](unsigned char*) {}), "");
    const auto changed = [&](unsigned at, unsigned char value) {
      return medium.problem(type, [&](unsigned char* block) { block[at] = value; });
    };
    EXPECT_TRUE(tells(changed(4, 1), "continued")) << four_text(type);
    EXPECT_TRUE(tells(changed(4, 8), "last of its medium")) << four_text(type);
    EXPECT_TRUE(tells(changed(10, 14), "operating system 14")) << four_text(type);
    EXPECT_TRUE(tells(changed(11, 1), "version 1")) << four_text(type);
    EXPECT_TRUE(tells(changed(44, 2), "has data of one")) << four_text(type);
    EXPECT_TRUE(tells(changed(48, 1), "strings are of the type 1")) << four_text(type);
  }
  EXPECT_NE(medium.problem(SFMB, [](unsigned char* block) { block[4] = 1; }), "");
  EXPECT_NE(medium.problem(SFMB, [](unsigned char* block) { block[10] = 14; }), "");
}

TEST(medium_rules, fields_that_readers_elsewhere_need_are_checked) {
  Changed_Medium medium;
  const auto number = [&](uint32_t type, unsigned at, uint16_t value) {
    return medium.problem(type, [&](unsigned char* block) { put16(block + at, value); });
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
    return medium.stream_problem(type, stream, [&](unsigned char* header) { put16(header + 6, value); });
  };
  EXPECT_TRUE(tells(format(FILE_, STAN, 1), "go on from another medium"));
  EXPECT_TRUE(tells(format(FILE_, STAN, 2), "variable length"));
  EXPECT_TRUE(tells(format(FILE_, STAN, 0x10), "compressed"));
  EXPECT_TRUE(tells(format(DIRB, OBSC, 1), "go on from another medium"));
  EXPECT_TRUE(tells(format(ESET, OBST, 8), "encrypted"));
  EXPECT_TRUE(tells(medium.stream_problem(FILE_, STAN, [](unsigned char* header) { put16(header + 4, 8); }),
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
