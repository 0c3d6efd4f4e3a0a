#include "platform/mtf/medium_test_support.h"

#include "platform/mtf/dblk.h"
#include "platform/mtf/dblk_name.h"
#include "sdk/mtf/cat_blk.h"

#include <algorithm>
#include <cstdio>
#include <openssl/sha.h>
#include <set>

namespace {

/// A path inside the source tree: tests run from anywhere in it or in a build folder under it.
std::string in_tree(const std::string& path) {
  std::string up;
  for (int i = 0; i < 8; ++i, up += "../")
    if (::access((up + path).c_str(), R_OK) == 0)
      return up + path;
  return path;
}

std::vector<Test_Object> golden_objects() {
  return {{"empty", ""},
          {"folder/hello.txt", "Hello, MTF!\n"},
          {"folder/longer", prose(1500, 1)},
          {"a//b", "behind an empty component"},
          {"not utf-8 \xFF", "a name that needs a substitute"},
          {"folder/sub/" + std::string(300, 'n'), "a name too long"}};
}

class golden_medium : public ::testing::TestWithParam<std::pair<const char*, MTF_Compression>> {};

// The plain one must also come out the same byte for byte; how codecs compress may change with their libraries.
TEST_P(golden_medium, reads_for_ever) {
  const std::string path = in_tree(std::string("tests/golden/media/") + GetParam().first);
  const auto objects = golden_objects();
  Scratch_Folder folder;
  const auto places = write_medium(folder.file("medium"), objects, {GetParam().second, 1}, Way::IMAGE);
  if (std::getenv("WRITE_GOLDEN_MEDIA") != nullptr && ::access(path.c_str(), F_OK) != 0)
    save(path, load(folder.file("medium")));
  if (GetParam().second == MTF_COMPRESSION_NONE) {
    EXPECT_TRUE(load(path) == load(folder.file("medium"))) << path;
  }
  std::string error;
  const auto reader = Medium_Reader::open(path, 0x12345678, error);
  ASSERT_TRUE(reader) << error;
  EXPECT_TRUE(reader->complete(error)) << error;
  EXPECT_TRUE(problems_of(path).empty());
  size_t next = 0;
  ASSERT_TRUE(reader->walk(
      false,
      [&](const Medium_Finding& finding) {
        if (finding.kind != Medium_Finding::OBJECT)
          return true;
        EXPECT_LT(next, objects.size());
        EXPECT_EQ(finding.head.path, "bucket/" + objects[next].key);
        const auto object = reader->object(finding.offset, error);
        std::string content;
        EXPECT_TRUE(object && read_all(*object, content) == Read_Outcome::END);
        EXPECT_TRUE(content == objects[next].content);
        ++next;
        return true;
      },
      error));
  EXPECT_EQ(next, objects.size());
}

INSTANTIATE_TEST_SUITE_P(versions, golden_medium,
                         ::testing::Values(std::make_pair("version1_plain.mtf", MTF_COMPRESSION_NONE),
                                           std::make_pair("version1_zstd.mtf", MTF_COMPRESSION_ZSTD),
                                           std::make_pair("version1_lzop.mtf", MTF_COMPRESSION_LZOP)));

std::string run(const std::string& command, int& status) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[4096];
  for (size_t count; pipe != nullptr && (count = std::fread(buffer, 1, sizeof buffer, pipe)) != 0;)
    out.append(buffer, count);
  status = pipe == nullptr ? -1 : ::pclose(pipe);
  return out;
}

std::string hex_digest(const std::string& content) {
  unsigned char digest[32];
  SHA256(bytes_of(content), content.size(), digest);
  std::string out;
  char pair[3];
  for (const unsigned char byte : digest) {
    std::snprintf(pair, sizeof pair, "%02x", byte);
    out += pair;
  }
  return out;
}

TEST(plain_medium, an_independent_reader_gets_every_content_and_every_name_that_can_be_carried) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::vector<Test_Object> objects = golden_objects();
  for (size_t size = 0; size < 1100; size += 13)
    objects.push_back({"sizes/" + std::to_string(size), noise(size, static_cast<unsigned>(size))});
  objects.push_back({"b\xC3\xBC"
                     "cher/\xF0\x9F\x98\x80",
                     "unicode"});
  objects.push_back({"large", noise(3000001, 7)});
  objects.push_back({"../up", "never outside"});
  objects.push_back({std::string(1024, 'k'), "long"});
  write_medium(path, objects, {}, Way::STREAMED);
  int status = 0;
  const std::string listed = run("python3 " + in_tree("tests/media/plain_mtf.py") + " digest " + path, status);
  ASSERT_EQ(status, 0) << listed;
  std::istringstream lines(listed);
  std::string line;
  std::set<std::string> names;
  for (const Test_Object& object : objects) {
    ASSERT_TRUE(std::getline(lines, line)) << object.key;
    EXPECT_EQ(line.substr(0, 64), hex_digest(object.content)) << object.key;
    const std::string name = line.substr(65);
    EXPECT_TRUE(names.insert(name).second) << name;
    const size_t slash = ("/" + object.key).rfind('/');
    const std::string last = object.key.substr(slash);
    if (last.size() <= 255 && object.key.find("//") == std::string::npos && object.key[0] != '.' &&
        object.key.find('\xFF') == std::string::npos) {
      EXPECT_EQ(name, "OBS/bucket/" + object.key);
    } else {
      EXPECT_NE(name.find('~'), std::string::npos) << name;
    }
  }
  EXPECT_FALSE(std::getline(lines, line));
}

TEST(dblk, dates_are_packed_as_the_format_has_them) {
  unsigned char date[5];
  MTF::time_to_mtf_date_time(852062850, date);
  EXPECT_EQ(std::string(date, date + 5), "\x1F\x33\x3F\x41\xDE");
  for (const long long time :
       {0ll, 1ll, -1ll, 951782399ll, 951782400ll, 4102444800ll, 253402300799ll, -62135596800ll}) {
    MTF::time_to_mtf_date_time(time, date);
    EXPECT_EQ(MTF::mtf_date_time_to_time(date), time);
  }
  MTF::time_to_mtf_date_time(1ll << 60, date);
  EXPECT_EQ(MTF::mtf_date_time_to_time(date), -1);
  MTF::time_to_mtf_date_time(-(1ll << 60), date);
  EXPECT_EQ(MTF::mtf_date_time_to_time(date), -1);
}

TEST(dblk, names_that_cannot_stand_get_substitutes_of_their_own) {
  std::set<std::string> seen;
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string(256, 'a'), std::string(257, 'a'),
        std::string("a\xFF"), std::string("a\xFE"), std::string("a\0", 2), std::string("x~0123456789abcdef")}) {
    const Dblk_Name field = file_name_field(name);
    EXPECT_FALSE(field.exact) << name;
    EXPECT_TRUE(seen.insert(field.utf16).second) << name;
    const std::string shown = utf16_to_utf8(field.utf16);
    EXPECT_LE(shown.size(), 255u);
    // A substitute used as a name is substituted in its turn.
    EXPECT_FALSE(file_name_field(shown).exact);
  }
  for (const std::string& name : {std::string("a"), std::string(255, 'a'), std::string("\x01\x7F \\:*?")}) {
    const Dblk_Name field = file_name_field(name);
    EXPECT_TRUE(field.exact);
    EXPECT_EQ(utf16_to_utf8(field.utf16), name);
  }
}

TEST(dblk, a_folder_too_deep_for_its_field_keeps_the_leading_components) {
  std::string path;
  for (int i = 0; i < 600; ++i)
    path += std::string("d\0", 2);
  const Dblk_Name field = directory_name_field(path);
  EXPECT_FALSE(field.exact);
  EXPECT_LE(field.utf16.size(), 908u);
  EXPECT_EQ(utf16_to_utf8(field.utf16).substr(0, 6), std::string("d\0d\0d\0", 6));
  EXPECT_NE(field.utf16, directory_name_field(path + std::string("d\0", 2)).utf16);
  EXPECT_EQ(directory_name_field("").utf16, std::string(2, '\0'));
}

// Readers that look for blocks at every boundary behind a directory must find none in its streams.
TEST(dblk, no_directory_shows_a_block_type_at_a_boundary) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::vector<Test_Object> objects;
  for (size_t shift = 0; shift < 8; ++shift) {
    std::string key(shift, 'x');
    while (key.size() < 1000)
      key += "FILEDIRB";
    objects.push_back({key + "\xFF/x", ""});
  }
  write_medium(path, objects, {}, Way::IMAGE);
  const std::string bytes = load(path);
  uint32_t last = 0;
  size_t directories = 0;
  for (size_t at = 0; at < bytes.size(); at += 1024) {
    Dblk_Header header;
    if (header.parse(bytes_of(bytes) + at)) {
      last = header.type;
      directories += last == MTF_Format::DIRB ? 1 : 0;
    } else if (last == MTF_Format::DIRB) {
      EXPECT_FALSE(is_dblk_type(header.type)) << at;
    }
  }
  EXPECT_EQ(directories, 2 + objects.size());
}

} // namespace
