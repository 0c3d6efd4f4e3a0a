#include "platform/mtf/changed_medium_test.h"
#include "platform/mtf/dblk_name.h"
#include "platform/mtf/medium_rules.h"
#include "platform/mtf/medium_salvage.h"

#include <xxhash.h>

using namespace MTF_Format;

// Breaches of the format on media whose checksums and checks all hold: each is told by what it is.

namespace {

const std::vector<Test_Object> OBJECTS = {
    {"a", "first"}, {"folder/b", "second"}, {"folder/sub/c", "third"}, {"other/d", "fourth"}};

std::string hex_path(const std::string& path) {
  std::string data = path, digits;
  unsigned char check[CHECK];
  put64(check, XXH3_64bits(data.data(), data.size()));
  data.append(reinterpret_cast<const char*>(check), sizeof check);
  for (const char c : data) {
    digits += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
    digits += "0123456789abcdef"[static_cast<unsigned char>(c) & 15];
  }
  return digits;
}

/// A directory's block and streams, as they would lie behind block `number`.
std::string directory(const std::string& path) {
  std::string block;
  make_directory(block, path, 1, 0, 1);
  return block;
}

TEST(medium_structure, block_that_says_it_belongs_elsewhere_is_told) {
  Changed_Medium medium(OBJECTS);
  for (const uint32_t type : {TAPE, SFMB, SSET, VOLB, DIRB, FILE_, ESET}) {
    const auto problems =
        medium.change(type, [](unsigned char* block) { put64(block + 20, get64(block + 20) + 1); }).problems();
    EXPECT_TRUE(!problems.empty() && tells(problems[0], "the block " + four_text(type) + " says it belongs at"))
        << four_text(type) << (problems.empty() ? "" : problems[0]);
  }
}

TEST(medium_structure, number_that_does_not_follow_is_told) {
  Changed_Medium medium(OBJECTS);
  for (const uint32_t type : {SSET, VOLB, DIRB, FILE_, ESET}) {
    const auto problems =
        medium.change(type, [](unsigned char* block) { put32(block + 36, get32(block + 36) + 7); }).problems();
    EXPECT_TRUE(!problems.empty() && tells(problems[0], "the block has the number")) << four_text(type);
    EXPECT_TRUE(tells(problems[0], "expected was")) << problems[0];
    // The next block has the right one, which does not follow the wrong one.
    EXPECT_EQ(problems.size(), type == ESET ? 1u : 2u) << four_text(type);
  }
  for (const uint32_t number : {0u, 3u, 9u}) {
    const auto of_directory =
        medium.change_at(medium.block(DIRB, 1), [&](unsigned char* block) { put32(block + 76, number); }).problems();
    EXPECT_TRUE(tells(of_directory, "the directory has the number " + std::to_string(number))) << number;
    const auto of_file = medium.change(FILE_, [&](unsigned char* block) { put32(block + 80, number); }).problems();
    EXPECT_TRUE(tells(of_file, "the numbers of its FILE block do not follow")) << number;
    const auto of_folder = medium.change(FILE_, [&](unsigned char* block) { put32(block + 76, number); }).problems();
    EXPECT_TRUE(tells(of_folder, "the numbers of its FILE block do not follow")) << number;
  }
}

TEST(medium_structure, number_0_is_told) {
  Changed_Medium medium(OBJECTS);
  const auto of = [&](uint32_t type, unsigned field) {
    return medium.change(type, [&](unsigned char* block) { put32(block + field, 0); }).problems();
  };
  EXPECT_TRUE(tells(of(DIRB, 76), "the block DIRB: it has the number 0"));
  EXPECT_TRUE(tells(of(FILE_, 76), "the block FILE: it has the number 0"));
  EXPECT_TRUE(tells(of(FILE_, 80), "the block FILE: it has the number 0"));
}

TEST(medium_structure, block_out_of_order_is_told) {
  Changed_Medium medium(OBJECTS);
  for (const uint32_t type : {TAPE, SSET, VOLB}) {
    const std::string copy = medium.bytes().substr(medium.block(type), FLB);
    const std::string told =
        medium.change_bytes([&](std::string& bytes) { bytes.insert(6 * FLB, copy); }).first_problem();
    EXPECT_TRUE(tells(told, "a block " + four_text(type) + " out of order")) << told;
  }
  // Filemark and end of set change places.
  const std::string end = medium
                              .change_bytes([&](std::string& bytes) {
                                const std::string last = bytes.substr(bytes.size() - 2 * FLB, FLB);
                                bytes.erase(bytes.size() - 2 * FLB, FLB);
                                bytes.insert(bytes.size() - 2 * FLB, last);
                              })
                              .first_problem();
  EXPECT_TRUE(tells(end, "a block ESET out of order")) << end;
  // An object in front of the root; a volume behind it.
  const std::string early = medium
                                .change_bytes([&](std::string& bytes) {
                                  const std::string root = bytes.substr(4 * FLB, FLB);
                                  bytes.erase(4 * FLB, FLB);
                                  bytes.insert(3 * FLB, root);
                                })
                                .first_problem();
  EXPECT_TRUE(tells(early, "a block DIRB out of order")) << early;
}

TEST(medium_structure, totals_that_differ_from_what_is_there_are_told) {
  Changed_Medium medium(OBJECTS);
  EXPECT_EQ(medium.change_stream(ESET, OBST, [](unsigned char*) {}).problem(), "");
  const std::string objects =
      medium.change_stream(ESET, OBST, [](unsigned char* h) { put64(h + STREAM_HEADER + 8, 5); }).problem();
  EXPECT_TRUE(tells(objects, "the set says it holds 5 objects with 22 bytes; found were 4 with 22")) << objects;
  const std::string bytes =
      medium.change_stream(ESET, OBST, [](unsigned char* h) { put64(h + STREAM_HEADER + 16, 21); }).problem();
  EXPECT_TRUE(tells(bytes, "the set says it holds 4 objects with 21 bytes; found were 4 with 22")) << bytes;
}

TEST(medium_structure, tape_and_set_of_more_than_one_block_are_told) {
  Changed_Medium medium(OBJECTS);
  std::string streams;
  append_stream(streams, four("OBSQ"), std::string(2048, '.'));
  for (const uint32_t type : {TAPE, SSET}) {
    const std::string told = medium.add_streams(medium.block(type), streams).first_problem();
    EXPECT_TRUE(tells(told, "the block " + four_text(type) + " takes more than one logical block")) << told;
  }
  for (const uint32_t type : {DIRB, ESET})
    EXPECT_EQ(medium.add_streams(medium.block(type), streams).problem(), "") << four_text(type);
}

TEST(medium_structure, padding_that_ends_elsewhere_is_told) {
  Changed_Medium medium(OBJECTS);
  for (const int more : {-4, 4, 1024})
    for (const uint32_t type : {TAPE, SSET, VOLB, DIRB, FILE_, ESET}) {
      const std::string told = medium
                                   .change_stream(type, SPAD,
                                                  [&](unsigned char* header) {
                                                    put64(header + 8, get64(header + 8) + static_cast<uint64_t>(more));
                                                  })
                                   .first_problem();
      EXPECT_TRUE(tells(told, type == FILE_ ? "the object does not end with padding to a block boundary"
                                            : "the padding does not end at a block boundary"))
          << four_text(type) << more << told;
    }
}

TEST(medium_structure, streams_at_an_offset_that_cannot_be_are_told) {
  Changed_Medium medium(OBJECTS);
  for (const uint32_t type : {TAPE, SFMB, SSET, VOLB, DIRB, FILE_, ESET})
    for (const uint16_t first : {0, 52, 1004, 1028}) {
      const std::string told =
          medium.change(type, [&](unsigned char* block) { put16(block + 8, first); }).first_problem();
      EXPECT_TRUE(tells(told, "has its streams at the impossible offset " + std::to_string(first)))
          << four_text(type) << told;
    }
  const std::string odd =
      medium.change(DIRB, [](unsigned char* block) { put16(block + 8, static_cast<uint16_t>(get16(block + 8) + 2)); })
          .first_problem();
  EXPECT_TRUE(tells(odd, "impossible offset")) << odd;
}

TEST(medium_structure, what_follows_the_end_of_the_set_is_told) {
  Changed_Medium medium(OBJECTS);
  const std::string last = medium.bytes().substr(medium.bytes().size() - FLB);
  for (const std::string& more : {std::string(1, '\0'), std::string(FLB, '\0'), std::string(FLB, 'x'), last}) {
    const auto problems = medium.change_bytes([&](std::string& bytes) { bytes += more; }).problems();
    ASSERT_FALSE(problems.empty());
    EXPECT_TRUE(tells(problems[0], "something follows the end of the set") || tells(problems[0], "SFMB out of order") ||
                tells(problems[0], "no block header"))
        << problems[0];
  }
}

TEST(medium_structure, what_follows_the_end_of_a_set_that_was_left_is_cut_off) {
  Changed_Medium medium(OBJECTS);
  for (const std::string& more : {std::string(1, '\0'), std::string(FLB, '\0'), std::string(5000, 'x')}) {
    save(medium.path(), medium.bytes() + more);
    Left_Medium left;
    left.path = medium.path();
    std::string error;
    ASSERT_EQ(look_at_left_medium(left, error), Left_Kind::MEDIUM) << error;
    ASSERT_TRUE(read_left_medium(
        left, nullptr, [](const Medium_Finding&) { return true; }, error))
        << error;
    ASSERT_TRUE(cut_left_medium(left, error) && end_left_medium(left, nullptr, error)) << error;
    EXPECT_EQ(left.objects, OBJECTS.size());
    EXPECT_TRUE(load(medium.path()) == medium.bytes()) << more.size();
  }
}

TEST(medium_structure, unknown_versions_are_told) {
  Changed_Medium medium(OBJECTS);
  EXPECT_TRUE(tells(medium.change(TAPE, [](unsigned char* block) { block[93] = 2; }).problem(), "version 2"));
  const auto version = [&](uint32_t type, uint32_t id) {
    return medium.change_stream(type, id, [](unsigned char* h) { put16(h + STREAM_HEADER, 7); }).first_problem();
  };
  EXPECT_TRUE(tells(version(FILE_, OBSH), "unknown version 7"));
  EXPECT_TRUE(tells(version(FILE_, OBSD), "unknown version"));
  EXPECT_TRUE(tells(version(VOLB, OBSI), "the stream OBSI does not match"));
  EXPECT_TRUE(tells(version(ESET, OBST), "the stream OBST does not match"));
  Changed_Medium framed({{"z", prose(5000, 1)}}, {MTF_COMPRESSION_ZSTD, 1});
  const std::string frame =
      framed.change_stream(FILE_, OBSZ, [](unsigned char* h) { h[STREAM_HEADER] = 7; }).first_problem();
  EXPECT_TRUE(tells(frame, "the frame header at")) << frame;
}

TEST(medium_structure, every_stream_of_every_object_is_held_to_the_rules) {
  Test_Object object{"folder/hello.txt", "Hello, MTF!\n"};
  const auto expect = [](Changed_Medium& medium, unsigned number, uint32_t id, unsigned nth, uint16_t good) {
    const auto attributes = [&](uint16_t value) {
      return medium
          .change_stream_at(
              medium.block(FILE_, number), id, [&](unsigned char* h) { put16(h + 6, value); }, nth)
          .first_problem();
    };
    const auto with = [good](unsigned bit) { return static_cast<uint16_t>(good | bit); };
    const std::string who = "the stream " + four_text(id) + ": ";
    EXPECT_EQ(attributes(good), "") << who << good;
    EXPECT_TRUE(tells(attributes(with(1)), who + "it is said to go on from another medium")) << who;
    EXPECT_TRUE(tells(attributes(with(0x10)), who + "it is said to be compressed")) << who;
    EXPECT_TRUE(tells(attributes(with(0x20)), who + "it has the attributes")) << who << attributes(with(0x20));
    EXPECT_TRUE(tells(attributes(with(0x40)), who + "it has the attributes")) << who;
    if ((good & STREAM_ENCRYPTED) == 0) {
      EXPECT_TRUE(tells(attributes(with(8)), who + "it is said to be encrypted or of variable length")) << who;
    } else {
      EXPECT_TRUE(tells(attributes(static_cast<uint16_t>(good & ~8u)), who + "it is not said to be encrypted")) << who;
    }
    if ((good & STREAM_VARIABLE) == 0) {
      EXPECT_TRUE(tells(attributes(with(2)), who + "it is said to be encrypted or of variable length")) << who;
      EXPECT_TRUE(tells(attributes(with(4)), who + "it is said to be encrypted or of variable length")) << who;
    }
    for (const unsigned field : {4u, 16u, 18u}) {
      const std::string told =
          medium
              .change_stream_at(
                  medium.block(FILE_, number), id, [&](unsigned char* h) { put16(h + field, 8); }, nth)
              .first_problem();
      EXPECT_TRUE(tells(told, who)) << field << told;
    }
  };
  Changed_Medium plain({object, {"other", "x"}});
  for (const unsigned number : {0u, 1u})
    for (const uint32_t id : {OBSH, STAN, OBSD, SPAD})
      expect(plain, number, id, 0, 0);
  const std::vector<Test_Object> large = {{"z", prose(2 * CHUNK + 1000, 1)}};
  Changed_Medium framed(large, {MTF_COMPRESSION_ZSTD, 1});
  for (const uint32_t id : {OBSH, OBSD, SPAD})
    expect(framed, 0, id, 0, 0);
  for (const unsigned frame : {0u, 1u})
    expect(framed, 0, OBSZ, frame, STREAM_VARIABLE);
  expect(framed, 0, OBSZ, 2, STREAM_VARIABLE | STREAM_VARIABLE_END);
  Changed_Medium sealed(large, {MTF_COMPRESSION_ZSTD, 1, test_cipher()});
  for (const uint32_t id : {OBSH, OBSD})
    expect(sealed, 0, id, 0, STREAM_ENCRYPTED);
  expect(sealed, 0, SPAD, 0, 0);
  for (const unsigned frame : {0u, 1u})
    expect(sealed, 0, OBSX, frame, STREAM_VARIABLE | STREAM_ENCRYPTED);
}

TEST(medium_structure, attributes_of_an_object_are_held_to_the_rules_too) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::string error;
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  ASSERT_TRUE(writer) << error;
  Object_Head head = test_head({"a", "x"}, 1);
  head.attributes.common = "{\"tags\":{}}";
  Object_Image image;
  Stored_Object stored;
  ASSERT_TRUE(image.encode(head, "x", {}, error) && writer->set_directory(directory_of(head.path)) &&
              writer->append(image, stored) && writer->finish());
  EXPECT_TRUE(problems_of(path).empty());
  std::string bytes = load(path);
  const size_t at = bytes.find("OBSA");
  put16(bytes_at(bytes, at + 6), 1);
  put16(bytes_at(bytes, at + 20), xor_words(bytes_at(bytes, at), 10));
  save(path, bytes);
  const auto problems = problems_of(path);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].offset, at);
  EXPECT_TRUE(tells(problems[0].message, "the stream OBSA: it is said to go on")) << problems[0].message;
}

TEST(medium_structure, size_dates_and_name_of_a_file_block_are_its_objects) {
  Changed_Medium medium(OBJECTS);
  const auto of = [&](const Changed_Medium::Change& change) { return medium.change(FILE_, change).problem(); };
  std::string told = of([](unsigned char* block) { put64(block + 12, 999999); });
  EXPECT_TRUE(tells(told, "its displayable size is 999999, and should be 5")) << told;
  for (const unsigned date : {56u, 61u, 71u}) {
    told = of([&](unsigned char* block) { block[date + 4] ^= 1; });
    EXPECT_TRUE(tells(told, "one of its dates is not the object's")) << date << told;
  }
  told = of([](unsigned char* block) { block[66] = 1; });
  EXPECT_TRUE(tells(told, "its backup date is not zero")) << told;
  told = of([](unsigned char* block) { block[get16(block + 86)] = 'b'; });
  EXPECT_TRUE(tells(told, "its name is not that of its object")) << told;
}

TEST(medium_structure, file_blocks_of_an_encrypted_set_tell_nothing_of_their_objects) {
  const Codec_Options codec{MTF_COMPRESSION_NONE, 1, test_cipher()};
  Changed_Medium medium(OBJECTS, codec);
  const auto of = [&](const Changed_Medium::Change& change) { return medium.change(FILE_, change).problem(); };
  EXPECT_EQ(of([](unsigned char*) {}), "");
  EXPECT_TRUE(tells(of([](unsigned char* block) { put64(block + 12, 5); }), "displayable size is 5, and should be 0"));
  EXPECT_TRUE(tells(of([](unsigned char* block) { block[56] = 1; }), "one of its dates"));
  EXPECT_TRUE(tells(of([](unsigned char* block) { block[get16(block + 86)] = 'p'; }), "its name is not"));
  // A folder's name would tell something too.
  const auto folder =
      medium.change_bytes([&](std::string& bytes) { bytes.insert(5 * FLB, directory(std::string("secret\0", 7))); })
          .problems();
  EXPECT_TRUE(tells(folder, "the block DIRB names a folder of an encrypted set"));
  // Nor may an object lie there as it is.
  Changed_Medium plain(OBJECTS);
  const std::string object = plain.bytes().substr(plain.block(FILE_), FLB);
  for (const bool keyed : {false, true}) {
    medium.change_bytes([&](std::string& bytes) { bytes.insert(medium.block(FILE_), object); });
    EXPECT_TRUE(tells(medium.problems(keyed), "is not encrypted, and its set is")) << keyed;
  }
}

TEST(medium_structure, first_directory_must_be_the_root) {
  Changed_Medium medium(OBJECTS);
  const auto problems = medium
                            .change_bytes([](std::string& bytes) {
                              std::string block = directory(std::string("folder\0", 7));
                              put32(bytes_at(block, 36), 2);
                              seal_dblk_header(bytes_at(block, 0));
                              bytes.replace(4 * FLB, FLB, block);
                            })
                            .problems();
  ASSERT_FALSE(problems.empty());
  EXPECT_TRUE(tells(problems[0], "the first directory is not the root")) << problems[0];
}

TEST(medium_structure, folder_without_a_block_for_what_it_lies_in_is_told) {
  Changed_Medium medium(OBJECTS);
  // "bucket", "bucket/folder", "bucket/folder/sub", "bucket", "bucket/other" without one of them.
  const auto without = [&](unsigned number) {
    const size_t at = medium.block(DIRB, number);
    return medium.change_bytes([&](std::string& bytes) { bytes.erase(at, FLB); }).problems();
  };
  EXPECT_TRUE(tells(without(2), "the folder that it lies in has no block in front of it"));
  EXPECT_TRUE(tells(without(1), "it does not lie in the directory in front of it"));
  EXPECT_TRUE(tells(without(3), "it does not lie in the directory in front of it"));
}

TEST(medium_structure, name_of_a_directory_is_that_of_its_path) {
  Changed_Medium medium(std::vector<Test_Object>{{"\xFF/a", "x"}});
  const size_t at = medium.block(DIRB, 2);
  EXPECT_EQ(medium.change_at(at, [](unsigned char*) {}).problem(), "");
  std::string told = medium.change_at(at, [](unsigned char* block) { block[get16(block + 82)] ^= 1; }).first_problem();
  EXPECT_TRUE(tells(told, "the block DIRB: its name is not that of its folder")) << told;
  // Another path with the same name.
  const std::string path("bucket\0\xFE\0", 9);
  told = medium
             .change_stream_at(at, OBSN,
                               [&](unsigned char* header) {
                                 const std::string digits = hex_path(path);
                                 ASSERT_EQ(get64(header + 8), digits.size());
                                 std::copy(digits.begin(), digits.end(), header + STREAM_HEADER);
                               })
             .first_problem();
  EXPECT_TRUE(tells(told, "the block DIRB: its name is not that of its folder")) << told;
  // A name that no file system takes, and no path beside it.
  Changed_Medium plain(std::vector<Test_Object>{{"ab/c", "x"}});
  told = plain
             .change_at(plain.block(DIRB, 2),
                        [](unsigned char* block) {
                          unsigned char* const name = block + get16(block + 82) + 14;
                          name[0] = name[2] = '.';
                        })
             .first_problem();
  EXPECT_TRUE(tells(told, "the block DIRB: its name")) << told;
}

TEST(medium_structure, private_stream_too_long_for_readers_elsewhere_is_told) {
  // In memory only what a window shows: the medium is a file with a hole.
  Changed_Medium medium(OBJECTS);
  medium.write();
  std::string bytes = load(medium.path());
  const size_t end = bytes.size() - 2 * FLB;
  ASSERT_EQ(get32(bytes_of(bytes) + end), ESET);
  const size_t spad = medium.stream(end, SPAD);
  for (const uint64_t length : {MAX_PRIVATE_STREAM, MAX_PRIVATE_STREAM + 4}) {
    std::string start = bytes.substr(0, spad), last;
    append_stream_header(start, four("OBSQ"), 0, length);
    const uint64_t behind = start.size() + length;
    append_spad(last, behind + (4 - behind % 4) % 4);
    save(medium.path(), start);
    const uint64_t mark = (behind + (4 - behind % 4) % 4 + last.size()) / FLB;
    std::string filemark;
    make_filemark(filemark, mark, {1, end / FLB - 1});
    ASSERT_EQ(::truncate(medium.path().c_str(), static_cast<off_t>(behind + (4 - behind % 4) % 4)), 0);
    std::ofstream(medium.path(), std::ios::binary | std::ios::app) << last << filemark;
    const auto problems = problems_of(medium.path());
    if (length <= MAX_PRIVATE_STREAM) {
      EXPECT_TRUE(problems.empty()) << problems[0].message;
      continue;
    }
    ASSERT_EQ(problems.size(), 1u) << problems[1].message;
    EXPECT_TRUE(tells(problems[0].message, "more than readers elsewhere keep of a stream")) << problems[0].message;
  }
}

} // namespace
