#include "platform/crypto/secret.h"

#include "platform/crypto/master_key.h"
#include "sdk/crypto/obs_sk_decryptor.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

namespace {

const std::string SECRET = "wJalrXUtnFEMI/K7MDENG+bPxRfiCYEXAMPLEKEY";

class secret : public testing::Test {
protected:
  secret() {
    char name[] = "/tmp/secret_test.XXXXXX";
    folder_ = ::mkdtemp(name);
    set_key_folder(folder_);
  }
  ~secret() override {
    set_key_folder(std::string());
    std::filesystem::remove_all(folder_);
  }
  std::string key_file() const { return folder_ + "/master.key"; }
  std::string sealed(const std::string& plain = SECRET) {
    std::string text;
    EXPECT_TRUE(seal_secret(plain, text, error_)) << error_;
    return text;
  }
  void replace_key(const std::string& bytes) { std::ofstream(key_file(), std::ios::binary) << bytes; }

  std::string folder_;
  std::string error_;
  std::string plain_;
  module_testing::Log_Sink log_;
};

TEST_F(secret, comes_back) {
  for (const std::string& plain : {SECRET, std::string("x"), std::string("\0\xff\n", 3), std::string(100000, 's')}) {
    EXPECT_TRUE(open_secret(sealed(plain), plain_, error_)) << error_;
    EXPECT_EQ(plain, plain_);
    EXPECT_EQ(plain, OBS_SK_Decryptor(sealed(plain)).str());
  }
  EXPECT_TRUE(log_.empty());
}

TEST_F(secret, sealed_twice_gives_two_texts_that_hold_nothing_of_it) {
  std::set<std::string> texts;
  for (int i = 0; i < 50; ++i) {
    const std::string text = sealed();
    EXPECT_EQ(0u, text.find("obs1:"));
    EXPECT_EQ(std::string::npos, text.find(SECRET));
    EXPECT_TRUE(texts.insert(text).second);
  }
}

TEST_F(secret, empty_is_refused) {
  std::string text;
  EXPECT_FALSE(seal_secret("", text, error_));
}

TEST_F(secret, tampered_at_any_byte_opens_nothing) {
  const std::string text = sealed();
  for (size_t at = 0; at < text.size(); ++at)
    for (const char change : {'\x01', '\x02', '\x10', '\x20', '\x40', '\x7f'}) {
      std::string other = text;
      other[at] = static_cast<char>(other[at] ^ change);
      plain_ = "before";
      EXPECT_FALSE(open_secret(other, plain_, error_)) << at;
      EXPECT_EQ("before", plain_);
      EXPECT_EQ("", OBS_SK_Decryptor(other).str());
    }
  EXPECT_EQ(0u, log_.count(SECRET));
}

TEST_F(secret, cut_or_lengthened_opens_nothing) {
  const std::string text = sealed();
  for (size_t length = 0; length < text.size(); ++length)
    EXPECT_FALSE(open_secret(text.substr(0, length), plain_, error_)) << length;
  for (const char* tail : {"A", "=", "AAAA", "\n", " "})
    EXPECT_FALSE(open_secret(text + tail, plain_, error_)) << tail;
  EXPECT_FALSE(open_secret(SECRET, plain_, error_));
}

TEST_F(secret, another_master_key_is_told_from_damage) {
  const std::string text = sealed();
  std::string damaged = text;
  damaged[damaged.size() / 2] = damaged[damaged.size() / 2] == 'A' ? 'B' : 'A';
  EXPECT_FALSE(open_secret(damaged, plain_, error_));
  EXPECT_NE(std::string::npos, error_.find("is damaged")) << error_;

  replace_key(std::string(32, 'k'));
  EXPECT_FALSE(open_secret(text, plain_, error_));
  EXPECT_NE(std::string::npos, error_.find("another master key")) << error_;
  EXPECT_EQ("", OBS_SK_Decryptor(text).str());
  EXPECT_EQ(1u, log_.count("another master key"));
  EXPECT_EQ(0u, log_.count(SECRET));
}

TEST_F(secret, a_missing_key_is_not_made_for_opening) {
  const std::string text = sealed();
  std::filesystem::remove(key_file());
  EXPECT_FALSE(open_secret(text, plain_, error_));
  EXPECT_NE(std::string::npos, error_.find("master.key")) << error_;
  EXPECT_FALSE(std::filesystem::exists(key_file()));
}

TEST_F(secret, the_key_is_for_its_owner_alone) {
  sealed();
  struct stat status;
  ASSERT_EQ(0, ::stat(key_file().c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_EQ(32, status.st_size);
  for (const mode_t mode : {0640u, 0604u, 0660u, 0602u}) {
    ASSERT_EQ(0, ::chmod(key_file().c_str(), mode));
    std::string text;
    EXPECT_FALSE(seal_secret(SECRET, text, error_)) << mode;
    EXPECT_NE(std::string::npos, error_.find("can be read by others")) << error_;
  }
}

TEST_F(secret, a_key_of_another_size_is_damaged) {
  sealed();
  for (const size_t size : {0u, 31u, 33u}) {
    replace_key(std::string(size, 'k'));
    Secret_Key key;
    EXPECT_FALSE(load_master_key(true, key, error_)) << size;
    EXPECT_NE(std::string::npos, error_.find("damaged")) << error_;
  }
}

TEST_F(secret, a_key_behind_a_link_is_refused) {
  const std::string text = sealed();
  std::filesystem::rename(key_file(), folder_ + "/elsewhere");
  std::filesystem::create_symlink(folder_ + "/elsewhere", key_file());
  EXPECT_FALSE(open_secret(text, plain_, error_));
}

TEST_F(secret, without_a_folder_there_is_no_key) {
  set_key_folder(std::string());
  std::string text;
  EXPECT_FALSE(seal_secret(SECRET, text, error_));
  set_key_folder(folder_ + "/missing");
  EXPECT_FALSE(seal_secret(SECRET, text, error_));
  EXPECT_NE(std::string::npos, error_.find("missing")) << error_;
}

TEST_F(secret, what_a_killed_process_left_is_removed_and_what_a_living_one_makes_is_not) {
  std::ofstream(folder_ + "/.master.key.left1") << "torn";
  std::ofstream(folder_ + "/.master.key.left2") << std::string(32, 'k');
  std::ofstream(folder_ + "/.master.keys") << "somebody else's";
  const std::string living = folder_ + "/.master.key.living";
  const int fd = ::open(living.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  const auto files = [&] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      names.insert(entry.path().filename().string());
    return names;
  };
  const std::string text = sealed();
  EXPECT_EQ((std::set<std::string>{".master.key.living", ".master.keys", "master.key"}), files());
  // As when it was killed between its last two steps.
  ::close(fd);
  std::filesystem::remove(living);
  std::filesystem::create_hard_link(key_file(), living);
  sealed();
  EXPECT_EQ((std::set<std::string>{".master.keys", "master.key"}), files());
  EXPECT_TRUE(open_secret(text, plain_, error_)) << error_;
}

TEST_F(secret, threads_that_make_the_key_at_once_get_the_same_one) {
  std::vector<std::string> texts(8);
  std::vector<std::thread> threads;
  for (std::string& text : texts)
    threads.emplace_back([&text] {
      std::string error;
      EXPECT_TRUE(seal_secret(SECRET, text, error)) << error;
    });
  for (std::thread& thread : threads)
    thread.join();
  for (const std::string& text : texts) {
    EXPECT_TRUE(open_secret(text, plain_, error_)) << error_;
    EXPECT_EQ(SECRET, plain_);
  }
  // No temporary file stays.
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    files += entry.exists();
  EXPECT_EQ(1u, files);
}

} // namespace
