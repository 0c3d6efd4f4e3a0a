#include "platform/mtf/set_copy.h"

#include "platform/mtf/dblk.h"
#include "platform/mtf/medium_test_support.h"

#include <algorithm>

using namespace MTF_Format;

namespace {

const char* const TYPES[] = {"TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB", "ESET", "EOTM", "SFMB"};

std::string repeated(const char* text, size_t size) {
  std::string out;
  while (out.size() < size)
    out += text;
  out.resize(size);
  return out;
}

/// A medium of a few objects that ends with a copy of `record` and `catalog`.
void write_with_copy(Scratch_Folder& folder, const std::string& path, const std::string& record,
                     const std::string& catalog, const Medium_Identity& identity = test_identity()) {
  std::string error;
  save(folder.file("catalog"), catalog);
  ::unlink(path.c_str());
  const auto writer = Medium_Writer::create(path, identity, error);
  ASSERT_TRUE(writer) << error;
  Stored_Object stored;
  ASSERT_TRUE(put_object(*writer, {"folder/hello.txt", "Hello, MTF!\n"}, 1, {}, Way::IMAGE, stored, error)) << error;
  const Set_Copy copy{record, folder.file("catalog")};
  ASSERT_TRUE(writer->finish(&copy)) << writer->error();
}

/// Where a reader that steps from boundary to boundary behind blocks other than FILE takes bytes for a block.
std::vector<size_t> taken_for_blocks(const std::string& medium) {
  std::vector<size_t> places;
  bool file = false;
  for (size_t at = 0; at + DBLK_HEADER <= medium.size(); at += FLB) {
    Dblk_Header header;
    const bool block = header.parse(bytes_of(medium) + at);
    if (block)
      file = header.type == FILE_;
    else if (!file && is_dblk_type(header.type))
      places.push_back(at);
  }
  return places;
}

void expect_copy(const std::string& path, const std::string& record, const std::string& catalog) {
  std::string read, bytes, error;
  const auto take = [&](const char* data, size_t size) {
    bytes.append(data, size);
    return true;
  };
  ASSERT_TRUE(read_set_copy(path, read, take, error)) << error;
  EXPECT_TRUE(read == record);
  EXPECT_TRUE(bytes == catalog);
  for (const Media_Problem& problem : problems_of(path))
    ADD_FAILURE() << problem.offset << ": " << problem.message;
}

// Texts of operators and services get into the record: at every shift of four bytes, some of them would stand at a
// boundary.
TEST(set_copy, record_of_block_types_shows_none_at_a_boundary_and_comes_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (const char* const type : TYPES)
    for (size_t shift = 0; shift < 4; ++shift) {
      const std::string record = std::string(shift, ' ') + repeated(type, 9000 + shift);
      write_with_copy(folder, path, record, "x");
      EXPECT_TRUE(taken_for_blocks(load(path)).empty()) << type << shift;
      expect_copy(path, record, "x");
    }
}

TEST(set_copy, stored_chunk_shows_no_block_type_whatever_byte_of_it_comes_to_a_boundary) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (size_t shift = 0; shift < FLB; shift += 7) {
    std::string catalog = noise(4096, 5);
    for (size_t at = shift; at + 4 <= catalog.size(); at += FLB)
      catalog.replace(at, 4, TYPES[shift % 10]);
    write_with_copy(folder, path, "{}", catalog);
    ASSERT_TRUE(taken_for_blocks(load(path)).empty()) << shift;
    expect_copy(path, "{}", catalog);
  }
}

TEST(set_copy, every_length_of_record_and_catalog_comes_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (size_t size = 0; size < 1100; size += 31) {
    const std::string record = noise(size, 1), catalog = noise(size + 1, 2);
    write_with_copy(folder, path, record, catalog);
    expect_copy(path, record, catalog);
  }
  const std::string large = noise(1u << 20, 3) + prose(1u << 20, 4) + noise(12345, 5);
  write_with_copy(folder, path, noise(100000, 6), large);
  expect_copy(path, noise(100000, 6), large);
}

TEST(set_copy, names_of_block_types_in_other_blocks_stay_inside_their_first_one) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (const char* const type : TYPES) {
    Medium_Identity identity = test_identity();
    for (std::string* const text : {&identity.media_name, &identity.software, &identity.set_uuid, &identity.set_name,
                                    &identity.description, &identity.user, &identity.machine, &identity.device})
      *text = repeated(type, 2000);
    write_with_copy(folder, path, "{}", "x", identity);
    EXPECT_TRUE(taken_for_blocks(load(path)).empty()) << type;
    expect_copy(path, "{}", "x");
  }
}

TEST(set_copy, changed_byte_at_a_boundary_is_found) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::string record = repeated("record ", 5000);
  write_with_copy(folder, path, record, "x");
  const std::string good = load(path);
  const size_t end = good.rfind("OBSR");
  ASSERT_NE(end, std::string::npos);
  for (size_t at = (end / FLB + 1) * FLB; at < end + 5000; at += FLB)
    for (size_t i = 0; i < 4; ++i) {
      std::string bad = good;
      bad[at + i] = 'x';
      save(path, bad);
      EXPECT_FALSE(problems_of(path).empty()) << at + i;
      std::string read, error;
      EXPECT_FALSE(read_set_copy(
          path, read, [](const char*, size_t) { return true; }, error));
      EXPECT_NE(error.find("OBSR does not match its check"), std::string::npos) << error;
    }
}

/// A path inside the source tree: tests run from anywhere in it or in a build folder under it.
std::string in_tree(const std::string& path) {
  std::string up;
  for (int i = 0; i < 8; ++i, up += "../")
    if (::access((up + path).c_str(), R_OK) == 0)
      return up + path;
  return path;
}

// Before zeros were put in at the boundaries.
TEST(set_copy, copy_of_the_first_version_reads_for_ever) {
  const std::string path = in_tree("tests/golden/media/version1_copy.mtf");
  std::string record, catalog, error;
  const auto take = [&](const char* data, size_t size) {
    catalog.append(data, size);
    return true;
  };
  ASSERT_TRUE(read_set_copy(path, record, take, error)) << error;
  EXPECT_NE(record.find("\"uuid\":\"6dcfdf0a-70ef-472f-933d-e642e02b5c31\""), std::string::npos) << record;
  EXPECT_EQ(catalog.size(), 53248u);
  EXPECT_EQ(catalog.substr(0, 15), "SQLite format 3");
  Media_Figures figures;
  EXPECT_TRUE(problems_of(path, &figures).empty());
  EXPECT_EQ(figures.objects, 6u);
}

} // namespace
