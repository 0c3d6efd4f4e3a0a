#include "platform/catalog/catalog_vfs.h"

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

namespace fs = std::filesystem;

namespace {

constexpr size_t PAGE = Catalog_Vfs::PAGE;
// Every page; under a sanitizer every 7th.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t STEP = 7;
#else
constexpr size_t STEP = 1;
#endif

Set_Cipher_ptr cipher_of(const std::string& set) {
  Secret_Key key;
  std::string error;
  return Set_Cipher::make(key, set, error);
}

class Sealed_Catalog : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/catalog_vfs_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string file() const { return folder_ + "/catalog.db"; }
  static std::string path_of(unsigned i) {
    return "secretbucket/secretfolder" + std::to_string(i / 1000) + "/secretname" + std::to_string(10000000 + i) +
           std::string(40, 's');
  }

  /// Ordinals rise with the names, places on media do not.
  void write(unsigned count) {
    fs::remove(file());
    auto writer = Catalog_Writer::create(folder_, error_, cipher_);
    ASSERT_TRUE(writer) << error_;
    ASSERT_TRUE(writer->add_set({0, "own", "h/r/a", 7}));
    for (unsigned i = 0; i < count; ++i) {
      Catalog_Object object;
      object.path = path_of(i);
      object.ordinal = i + 1;
      object.size = i;
      object.offset = static_cast<unsigned long long>(i) * 7919 % count * 4096;
      ASSERT_TRUE(writer->add_object(object));
      if (i % 1000 == 999 || i + 1 == count) {
        ASSERT_TRUE(
            writer->add_visit({object.path.substr(0, object.path.rfind('/') + 1), i / 1000 * 1000 + 1, i + 1, true}));
      }
    }
    ASSERT_TRUE(writer->add_problem({Catalog_Problem::SKIPPED, "secretbucket/skipped", 0, "secretreason"}));
    ASSERT_TRUE(writer->finish()) << writer->error();
    bytes_ = load();
  }
  std::string load() const {
    std::ifstream in(file(), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  void save(const std::string& bytes) const { std::ofstream(file(), std::ios::binary | std::ios::trunc) << bytes; }
  /// Reads all there is; how many objects came, or -1 with `error_`.
  int read_all(const Set_Cipher_ptr& cipher) {
    error_.clear();
    const auto reader = Catalog_Reader::open(folder_, error_, cipher);
    if (!reader || !reader->check_pages(error_))
      return -1;
    int count = 0;
    const bool walked = reader->walk(
        "",
        [&](const Catalog_Object& object) {
          EXPECT_EQ(path_of(static_cast<unsigned>(count)), object.path);
          ++count;
          return true;
        },
        error_);
    return walked && reader->problems([](const Catalog_Problem&) { return true; }, error_) ? count : -1;
  }

  Set_Cipher_ptr cipher_ = cipher_of("set");
  std::string folder_, error_, bytes_;
};

TEST_F(Sealed_Catalog, every_query_works_as_on_a_plain_one) {
  write(5000);
  EXPECT_EQ(5000, read_all(cipher_)) << error_;
  const auto reader = Catalog_Reader::open(folder_, error_, cipher_);
  ASSERT_TRUE(reader) << error_;
  EXPECT_EQ(5000u, reader->counts().objects);
  EXPECT_EQ("own", reader->set_uuid());
  Catalog_Object object;
  ASSERT_TRUE(reader->find(path_of(4321), object, error_)) << error_;
  EXPECT_EQ(4321u, object.size);
  Catalog_Page page;
  ASSERT_TRUE(reader->list("secretbucket/", "", 100, page, error_)) << error_;
  EXPECT_EQ(5u, page.folders.size());
  unsigned long long last = 0;
  unsigned count = 0;
  ASSERT_TRUE(reader->walk_media(
      Catalog_Selection(),
      [&](const Catalog_Object& one) {
        EXPECT_TRUE(count == 0 || one.offset > last);
        last = one.offset;
        return ++count != 0;
      },
      error_))
      << error_;
  EXPECT_EQ(5000u, count);
}

TEST_F(Sealed_Catalog, nothing_in_it_can_be_read) {
  write(5000);
  EXPECT_EQ(0u, bytes_.size() % PAGE);
  for (const char* word : {"secret", "SQLite", "CREATE", "objects"})
    EXPECT_EQ(std::string::npos, bytes_.find(word)) << word;
  EXPECT_EQ(-1, read_all(nullptr));
}

TEST_F(Sealed_Catalog, flipped_bit_in_any_page_is_found_by_page) {
  write(1500);
  ASSERT_GT(bytes_.size(), 20 * PAGE);
  for (size_t page = 0; page < bytes_.size() / PAGE; page += STEP)
    for (const size_t at : {size_t(0), size_t(2000), PAGE - 48, PAGE - 30, PAGE - 24, PAGE - 20, PAGE - 1}) {
      std::string bad = bytes_;
      bad[page * PAGE + at] ^= 0x10;
      save(bad);
      EXPECT_EQ(-1, read_all(cipher_)) << page << " " << at;
      EXPECT_NE(std::string::npos, error_.find("page " + std::to_string(page + 1) + " "))
          << page << " " << at << error_;
    }
  save(bytes_);
  EXPECT_EQ(1500, read_all(cipher_)) << error_;
}

TEST_F(Sealed_Catalog, truncation_at_any_page_is_found) {
  write(300);
  for (size_t size = 0; size < bytes_.size(); size += size % PAGE == 0 ? 1 : PAGE - 1) {
    save(bytes_.substr(0, size));
    EXPECT_EQ(-1, read_all(cipher_)) << size;
    EXPECT_NE("", error_);
  }
}

TEST_F(Sealed_Catalog, pages_of_other_places_sets_and_writings_are_found) {
  write(1500);
  const std::string first = bytes_;
  std::string bad = first;
  std::swap_ranges(bad.begin() + 3 * PAGE, bad.begin() + 4 * PAGE, bad.begin() + 7 * PAGE);
  save(bad);
  EXPECT_EQ(-1, read_all(cipher_));
  EXPECT_NE(std::string::npos, error_.find("is damaged")) << error_;
  write(1500);
  ASSERT_EQ(first.size(), bytes_.size());
  bad = bytes_;
  bad.replace(5 * PAGE, PAGE, first, 5 * PAGE, PAGE);
  save(bad);
  EXPECT_EQ(-1, read_all(cipher_)) << "a page of an older writing under the same key";
  save(first);
  EXPECT_EQ(1500, read_all(cipher_)) << error_;
  EXPECT_EQ(-1, read_all(cipher_of("set")));
  EXPECT_NE(std::string::npos, error_.find("was not encrypted for the set set")) << error_;
}

TEST_F(Sealed_Catalog, two_writings_have_no_block_in_common) {
  write(500);
  const std::string first = bytes_;
  write(500);
  ASSERT_EQ(first.size(), bytes_.size());
  for (size_t at = 0; at + 16 <= first.size(); at += 16)
    if (at % PAGE < PAGE - Catalog_Vfs::RESERVED) {
      EXPECT_NE(first.substr(at, 16), bytes_.substr(at, 16)) << at;
    }
}

TEST_F(Sealed_Catalog, plain_catalog_in_its_place_is_refused) {
  const Set_Cipher_ptr cipher = cipher_;
  cipher_ = nullptr;
  write(10);
  EXPECT_EQ(10, read_all(nullptr)) << error_;
  EXPECT_EQ(-1, read_all(cipher));
  EXPECT_NE(std::string::npos, error_.find("page 1 was not encrypted for the set")) << error_;
}

/// The descriptors that are open now, by number.
std::set<std::string> descriptors() {
  std::set<std::string> found;
  DIR* const folder = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(folder))
    found.insert(entry->d_name);
  ::closedir(folder);
  return found;
}

/// The contents of open files that have no name any more, but for those that were `inherited`: who started the test
/// may have left some open.
std::vector<std::string> nameless_files(const std::set<std::string>& inherited) {
  std::vector<std::string> found;
  for (const std::string& number : descriptors()) {
    if (inherited.count(number) != 0)
      continue;
    const std::string link = "/proc/self/fd/" + number;
    std::error_code code;
    const std::string target = fs::read_symlink(link, code).string();
    if (code || target.find("(deleted)") == std::string::npos)
      continue;
    std::ifstream in(link, std::ios::binary);
    found.emplace_back((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  return found;
}

// Sorting a large catalog goes through temporary files.
TEST_F(Sealed_Catalog, temporary_files_tell_nothing) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> of_others(std::tmpfile(), std::fclose);
  ASSERT_TRUE(of_others && std::fputs("secret", of_others.get()) >= 0 && std::fflush(of_others.get()) == 0);
  const std::set<std::string> inherited = descriptors();
  write(60000);
  const auto reader = Catalog_Reader::open(folder_, error_, cipher_);
  ASSERT_TRUE(reader) << error_;
  size_t most = 0, count = 0;
  bool readable = false;
  ASSERT_TRUE(reader->walk_media(
      Catalog_Selection(),
      [&](const Catalog_Object& object) {
        EXPECT_EQ(path_of(static_cast<unsigned>(object.size)), object.path);
        if (++count != 1)
          return true;
        for (const std::string& content : nameless_files(inherited)) {
          most = std::max(most, content.size());
          readable = readable || content.find("secret") != std::string::npos;
        }
        return true;
      },
      error_))
      << error_;
  EXPECT_EQ(60000u, count);
  EXPECT_GT(most, 100000u) << "nothing was put into a temporary file, so this shows nothing";
  EXPECT_FALSE(readable);
}

} // namespace
