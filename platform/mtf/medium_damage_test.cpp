#include "platform/mtf/medium_test_support.h"

#include "platform/mtf/object_stream.h"

#include <csignal>
#include <map>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

std::vector<Test_Object> small_set() {
  return {{"empty", ""},
          {"folder/hello.txt", "Hello, MTF!\n"},
          {"folder/longer", prose(1500, 1)},
          {std::string(300, 'n') + "\xFF/x", "in a folder with a substitute"}};
}

void set_byte(const std::string& path, size_t at, char value) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(at));
  file.put(value);
}

// Every byte; under a sanitizer, which takes a hundred times as long, every 37th: no block's fields repeat at that
// distance.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t STRIDE = 37;
#else
constexpr size_t STRIDE = 1;
#endif

struct Storing {
  MTF_Compression compression;
  bool encrypted;
  Codec_Options codec() const { return {compression, 1, encrypted ? test_cipher() : nullptr}; }
};

class damaged_medium : public ::testing::TestWithParam<Storing> {};

// Damage to an object costs that object at most; anything else costs none. Nothing is ever handed out that differs.
TEST_P(damaged_medium, a_flipped_bit_in_any_byte_is_found_and_the_rest_stays_readable) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto objects = small_set();
  const Codec_Options codec = GetParam().codec();
  const auto places = write_medium(path, objects, codec, Way::IMAGE);
  const std::string good = load(path);
  std::string error;
  for (size_t at = 0; at < good.size(); at += STRIDE) {
    if (at != 0)
      set_byte(path, at - STRIDE, good[at - STRIDE]);
    set_byte(path, at, static_cast<char>(good[at] ^ 1 << at % 8));
    // Where the key is not known, too.
    const auto problems = problems_of(path);
    ASSERT_FALSE(problems.empty()) << "byte " << at;
    EXPECT_LE(problems[0].offset, at) << at;
    const auto reader = Medium_Reader::open(path, 0, error, codec.cipher);
    ASSERT_TRUE(reader) << at << ": " << error;
    std::map<std::string, int> whole;
    std::string named;
    ASSERT_TRUE(reader->walk(
        true,
        [&](const Medium_Finding& finding) {
          if (finding.kind == Medium_Finding::OBJECT)
            ++whole[finding.head.path];
          else if (finding.kind == Medium_Finding::DAMAGE)
            named += finding.message;
          return true;
        },
        error));
    for (size_t i = 0; i < objects.size(); ++i) {
      const bool inside = at >= places[i].offset && at < places[i].offset + places[i].stored;
      const std::string name = "bucket/" + objects[i].key;
      if (!inside) {
        EXPECT_EQ(whole[name], 1) << "byte " << at << " cost " << name << ": " << named;
      }
      const auto object = reader->object(places[i].offset, error);
      if (!inside) {
        ASSERT_TRUE(object) << at << error;
      }
      if (object) {
        std::string content;
        const Read_Outcome outcome = read_all(*object, content);
        if (outcome == Read_Outcome::END || !inside) {
          EXPECT_TRUE(outcome == Read_Outcome::END && content == objects[i].content) << "byte " << at;
        }
        if (inside && outcome != Read_Outcome::END) {
          EXPECT_EQ(whole[name], 0) << at;
        }
      }
      if (inside) {
        // Without its head an encrypted object has but its ordinal.
        EXPECT_TRUE(named.find(i < 3 ? name : "x\"") != std::string::npos ||
                    (codec.cipher && named.find("object-" + std::to_string(i + 1)) != std::string::npos))
            << "byte " << at << ": " << named;
      }
    }
  }
}

TEST_P(damaged_medium, a_truncation_anywhere_is_told_as_a_torn_end) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto objects = small_set();
  const Codec_Options codec = GetParam().codec();
  const auto places = write_medium(path, objects, codec, Way::IMAGE);
  const std::string good = load(path);
  for (size_t size = 0; size < good.size(); size += size % 1024 == 0 ? 1 : size % 1024 == 1 ? 510 : 513) {
    save(path, good.substr(0, size));
    std::string error;
    const auto reader = Medium_Reader::open(path, 0, error, codec.cipher);
    if (!reader) {
      EXPECT_LT(size, 1024u) << error;
      continue;
    }
    EXPECT_FALSE(reader->complete(error));
    size_t whole = 0;
    bool torn = false;
    ASSERT_TRUE(reader->walk(
        true,
        [&](const Medium_Finding& finding) {
          EXPECT_NE(finding.kind, Medium_Finding::END_OF_SET);
          whole += finding.kind == Medium_Finding::OBJECT ? 1 : 0;
          torn = torn || finding.message.find("torn") != std::string::npos;
          return true;
        },
        error));
    EXPECT_TRUE(torn) << size;
    size_t expected = 0;
    for (const Stored_Object& place : places)
      expected += place.offset + place.stored <= size ? 1 : 0;
    EXPECT_EQ(whole, expected) << size;
  }
}

INSTANTIATE_TEST_SUITE_P(codecs, damaged_medium,
                         ::testing::Values(Storing{MTF_COMPRESSION_NONE, false}, Storing{MTF_COMPRESSION_ZSTD, false},
                                           Storing{MTF_COMPRESSION_LZOP, false}, Storing{MTF_COMPRESSION_NONE, true},
                                           Storing{MTF_COMPRESSION_ZSTD, true}));

TEST(damaged, a_bad_chunk_of_a_large_object_is_never_handed_out) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::vector<Test_Object> objects = {{"large", noise(4 * CHUNK + 5, 1)}, {"next", "whole"}};
  for (const MTF_Compression compression : {MTF_COMPRESSION_NONE, MTF_COMPRESSION_ZSTD}) {
    const auto places = write_medium(path, objects, {compression, 1}, Way::STREAMED);
    std::string bytes = load(path);
    bytes[places[0].offset + 2 * CHUNK + CHUNK / 2] ^= 4;
    save(path, bytes);
    std::string error;
    const auto reader = Medium_Reader::open(path, 0, error);
    ASSERT_TRUE(reader) << error;
    const auto object = reader->object(places[0].offset, error);
    ASSERT_TRUE(object) << error;
    std::string content;
    EXPECT_EQ(read_all(*object, content), Read_Outcome::DAMAGED);
    EXPECT_EQ(content.size(), 2u * CHUNK);
    EXPECT_TRUE(content == objects[0].content.substr(0, content.size()));
    EXPECT_NE(object->error().find("bucket/large"), std::string::npos);
    const auto problems = problems_of(path);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].object, "bucket/large");
    EXPECT_EQ(problems[0].offset, places[0].offset);
  }
}

TEST(damaged, lengths_beyond_the_medium_are_refused) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::vector<Test_Object> objects = {{"a", prose(3000, 1)}};
  const auto places = write_medium(path, objects, {}, Way::IMAGE);
  std::string bytes = load(path);
  const size_t stream = bytes.find("STAN");
  put64(bytes_at(bytes, stream + 8), 0xFFFFFFFFFFFFFFF0ull);
  put16(bytes_at(bytes, stream + 20), xor_words(bytes_at(bytes, stream), 10));
  save(path, bytes);
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error);
  ASSERT_TRUE(reader) << error;
  EXPECT_FALSE(reader->object(places[0].offset, error));
  EXPECT_NE(error.find("longer than the medium"), std::string::npos) << error;
}

TEST(damaged, a_place_without_an_object_is_refused) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto places = write_medium(path, small_set(), {}, Way::IMAGE);
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error);
  ASSERT_TRUE(reader) << error;
  for (const unsigned long long offset : {0ull, 1024ull, 4096ull, places[1].offset + 1, places[2].offset + 1024,
                                          reader->size(), reader->size() + 1024, ~0ull, ~0ull - 1023}) {
    error.clear();
    EXPECT_FALSE(reader->object(offset, error)) << offset;
    EXPECT_NE(error, "") << offset;
  }
}

TEST(damaged, what_is_no_medium_is_refused_with_the_reason) {
  Scratch_Folder folder;
  std::string error;
  EXPECT_FALSE(Medium_Reader::open(folder.file("missing"), 0, error));
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;
  save(folder.file("empty"), "");
  EXPECT_FALSE(Medium_Reader::open(folder.file("empty"), 0, error));
  save(folder.file("noise"), noise(100000, 1));
  EXPECT_FALSE(Medium_Reader::open(folder.file("noise"), 0, error));
  EXPECT_NE(error.find("no medium"), std::string::npos) << error;
  write_medium(folder.file("medium"), small_set(), {}, Way::IMAGE);
  EXPECT_FALSE(Medium_Reader::open(folder.file("medium"), 5, error));
  EXPECT_NE(error.find("family"), std::string::npos) << error;
  EXPECT_FALSE(Medium_Writer::create(folder.file("medium"), test_identity(), error));
  EXPECT_NE(error.find("File exists"), std::string::npos) << error;
}

// The limit of the process stands in for the disk's end; it holds for a child only.
TEST(damaged, a_full_disk_leaves_the_writer_failed_with_a_clear_reason) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {3 * CHUNK + 1000, 3 * CHUNK + 1000};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::string error;
    const auto writer = Medium_Writer::create(path, test_identity(), error);
    int result = writer ? 0 : 1;
    unsigned long long i = 0;
    Stored_Object stored;
    const Test_Object object = {"x", noise(200000, 1)};
    while (result == 0 && i < 100 && put_object(*writer, object, ++i, {}, Way::IMAGE, stored, error))
      ;
    if (result == 0 && (i == 100 || writer->error().find("File too large; make room") == std::string::npos ||
                        writer->error().find(path) == std::string::npos))
      result = 2;
    if (result == 0) {
      const std::string first = writer->error();
      if (writer->finish() || writer->set_directory(std::string("b\0", 2)) || writer->error() != first)
        result = 3;
    }
    _exit(result);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_NE(load(path).size(), 0u);
}

TEST(damaged, a_dump_names_every_block_and_what_is_lost) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto places = write_medium(path, small_set(), {MTF_COMPRESSION_ZSTD, 1}, Way::IMAGE);
  std::string error;
  std::string text;
  const auto add = [&](const std::string& line) {
    text += line + "\n";
    return true;
  };
  ASSERT_TRUE(dump_medium(path, add, error)) << error;
  for (const char* part : {"0 TAPE", "1024 SFMB", "2048 SSET", "3072 VOLB", "4096 DIRB", "\"bucket/folder/hello.txt\"",
                           "OBSZ", "sha256 e3b0c44298fc1c14", "OBST length 32 objects 4 bytes"})
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  EXPECT_EQ(text.find("????"), std::string::npos);
  std::string bytes = load(path);
  bytes[places[1].offset] ^= 1;
  save(path, bytes);
  text.clear();
  ASSERT_TRUE(dump_medium(path, add, error)) << error;
  EXPECT_NE(text.find(std::to_string(places[1].offset) + " ???? 1024 bytes"), std::string::npos) << text;
}

} // namespace
