#include "platform/mtf/medium_test_support.h"

#include "platform/catalog/open_catalog.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/set_copy.h"
#include "platform/mtf/verify.h"

#include <filesystem>
#include <map>

// A plain pool with one set of two media that the program wrote: attributes, the copies of record and catalog, the
// checks of both. Reads for ever.

namespace fs = std::filesystem;

namespace {

/// The folder inside the source tree: tests run from anywhere in it or in a build folder under it.
std::string golden_folder() {
  std::string up;
  for (int i = 0; i < 8; ++i, up += "../")
    if (::access((up + "tests/golden").c_str(), R_OK) == 0)
      return fs::absolute(up + "tests/golden/plain_pool").lexically_normal().string();
  return "tests/golden/plain_pool";
}

std::map<std::string, std::string> golden_objects() {
  std::string numbers;
  for (int i = 0; i < 700; ++i)
    numbers += std::to_string(i) + "\n";
  return {{"empty", ""},
          {"folder/hello.txt", "Hello, MTF!\n"},
          {"folder/numbers", numbers},
          {"a//b", "behind an empty component"},
          {"folder/" + std::string(300, 'n'), "a name too long for its block"},
          {"b\xC3\xBC"
           "cher/\xF0\x9F\x98\x80",
           "unicode"}};
}

class Plain_Golden : public ::testing::Test {
protected:
  void SetUp() override {
    fs::copy(golden_folder(), copy_, fs::copy_options::recursive);
    ASSERT_TRUE(Pool::open("file://" + copy_, "", pool_, error_)) << error_;
    std::vector<std::string> errors;
    const std::vector<Set_Record> sets = pool_.sets("", errors);
    ASSERT_EQ(sets.size(), 1u) << (errors.empty() ? "" : errors[0]);
    record_ = sets[0];
    folder_ = pool_.set_folder(record_.uri);
  }
  void TearDown() override { fs::remove_all(copy_); }

  Scratch_Folder scratch_;
  const std::string copy_ = scratch_.file("pool");
  Pool pool_;
  Set_Record record_;
  std::string folder_, error_;
};

TEST_F(Plain_Golden, reads_for_ever) {
  Verify_Report report;
  EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
  const auto objects = golden_objects();
  EXPECT_EQ(report.good, objects.size());
  const auto catalog = open_set_catalog(pool_, record_, error_);
  ASSERT_TRUE(catalog) << error_;
  for (const auto& [key, content] : objects) {
    Catalog_Object found;
    ASSERT_TRUE(catalog->find("bucket/" + key, found, error_)) << key << error_;
    const auto reader =
        Medium_Reader::open(folder_ + "/" + medium_name(found.channel), record_.media[0].family, error_);
    ASSERT_TRUE(reader) << error_;
    const auto one = reader->object(found.offset, error_);
    std::string read;
    ASSERT_TRUE(one && read_all(*one, read) == Read_Outcome::END) << error_;
    EXPECT_EQ(read, content);
    EXPECT_EQ(one->head().attributes.common, found.attributes.common);
    EXPECT_NE(one->head().attributes.own.find("\"etag\""), std::string::npos);
    if (key == "folder/hello.txt") {
      EXPECT_NE(found.attributes.common.find("\"made-by\":\"hand\""), std::string::npos) << found.attributes.common;
    }
  }
  for (const Set_Record::Medium& medium : record_.media)
    EXPECT_TRUE(problems_of(folder_ + "/" + medium.name).empty()) << medium.name;
}

TEST_F(Plain_Golden, copy_on_the_first_medium_is_the_catalog_and_the_record) {
  std::string text, catalog;
  const auto take = [&](const char* data, size_t size) {
    catalog.append(data, size);
    return true;
  };
  ASSERT_TRUE(read_set_copy(folder_ + "/" + medium_name(0), text, take, error_)) << error_;
  EXPECT_TRUE(catalog == load(folder_ + "/catalog.db"));
  json_spirit::Value value;
  Set_Record copied;
  ASSERT_TRUE(json_spirit::read(text, value) && Set_Record::from_json(value.get_obj(), copied, error_)) << error_;
  EXPECT_EQ(copied.uuid, record_.uuid);
  EXPECT_EQ(copied.name, record_.name);
}

TEST_F(Plain_Golden, flipped_bit_in_any_byte_of_the_record_is_found_and_named) {
  const std::string path = folder_ + "/set.json", good = load(path);
  for (size_t bit = 0; bit < 8 * good.size(); bit += 7) {
    std::string bad = good;
    bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ 1 << bit % 8);
    save(path, bad);
    Set_Record read;
    // White space that becomes other white space says what it said.
    if (good[bit / 8] == '\n' && bad[bit / 8] == '\v') {
      ASSERT_TRUE(read_set_record(folder_, read, error_)) << error_;
      EXPECT_EQ(json_spirit::write(read.to_json()), json_spirit::write(record_.to_json()));
      continue;
    }
    EXPECT_FALSE(read_set_record(folder_, read, error_)) << "bit " << bit << " of " << bad[bit / 8];
    EXPECT_NE(error_.find(path), std::string::npos) << error_;
  }
}

TEST_F(Plain_Golden, record_without_its_check_is_read_when_it_never_had_one) {
  const std::string path = folder_ + "/set.json";
  json_spirit::Value value;
  ASSERT_TRUE(json_spirit::read(load(path), value));
  value.get_obj().erase("sha256");
  save(path, json_spirit::write(value));
  Set_Record read;
  EXPECT_FALSE(read_set_record(folder_, read, error_));
  EXPECT_NE(error_.find("its check is missing"), std::string::npos) << error_;
  value.get_obj().erase("checked");
  save(path, json_spirit::write(value));
  EXPECT_TRUE(read_set_record(folder_, read, error_)) << error_;
  EXPECT_EQ(read.uuid, record_.uuid);
}

// Wherever SQLite itself would notice nothing: in values, in free space, in tables that no object stands in.
TEST_F(Plain_Golden, flipped_bits_on_every_page_of_the_catalog_are_found_and_named) {
  const std::string path = folder_ + "/catalog.db", good = load(path);
  ASSERT_EQ(good.size() % 4096, 0u);
  for (size_t page = 0; page < good.size(); page += 4096)
    for (const size_t place : {0, 20, 100, 1000, 2048, 4000, 4090, 4095}) {
      std::string bad = good;
      bad[page + place] = static_cast<char>(bad[page + place] ^ 1 << (page / 4096 + place) % 8);
      save(path, bad);
      Verify_Report report;
      EXPECT_FALSE(verify_set(pool_, record_, {}, report)) << page + place;
      std::string told = report.failure;
      for (const std::string& one : report.media)
        told += "; " + one;
      EXPECT_NE(told.find("catalog"), std::string::npos) << page + place << ": " << told;
    }
  save(path, good);
  const std::string sum = load(folder_ + "/catalog.sum");
  for (size_t i = 0; i < sum.size(); ++i) {
    std::string bad = sum;
    bad[i] = static_cast<char>(bad[i] ^ 1);
    save(folder_ + "/catalog.sum", bad);
    Verify_Report report;
    EXPECT_FALSE(verify_set(pool_, record_, {}, report)) << i;
  }
  fs::remove(folder_ + "/catalog.sum");
  Verify_Report report;
  EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << "older catalogs have none";
}

// What matches its check and was written wrong all the same.
TEST_F(Plain_Golden, catalog_that_says_otherwise_than_the_media_is_named_by_object) {
  const std::string path = folder_ + "/catalog.db", good = load(path);
  fs::remove(folder_ + "/catalog.sum");
  const auto expect = [&](const char* change, const std::string& part) {
    save(path, good);
    ASSERT_EQ(std::system(("/usr/bin/python3 -c \"import sqlite3; c = sqlite3.connect('" + path +
                           "'); c.execute('UPDATE objects SET " + change +
                           " WHERE name=CAST(\\'hello.txt\\' AS BLOB)'); c.commit()\"")
                              .c_str()),
              0);
    Verify_Report report;
    EXPECT_FALSE(verify_set(pool_, record_, {}, report));
    ASSERT_EQ(report.damages.size(), 1u) << part << report.failure;
    EXPECT_EQ(report.damages[0].path, "bucket/folder/hello.txt");
    EXPECT_NE(report.damages[0].message.find(part), std::string::npos) << report.damages[0].message;
    EXPECT_FALSE(report.damages[0].lost);
  };
  expect("mtime=mtime+1", "modification time");
  expect("stored=stored+1", "bytes on the medium");
  expect("attributes=(SELECT min(id) FROM attributes)", "attributes");
}

} // namespace
