#include "platform/pool/pool_roll.h"

#include "platform/pool/record_text.h"
#include "platform/pool/set_keys.h"
#include "platform/store/store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

typedef std::vector<std::string> Names;

/// Pools with three sets in them, plain (false) and encrypted (true), of an agent that has a database.
class Rolls : public testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    char name[] = "/tmp/pool_roll_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
    store_ = Store::open(folder_ + "/state", error_);
    ASSERT_TRUE(store_) << error_;
    Store::instance(store_.get());
    const std::string url = "file://" + folder_ + "/pool";
    uuid_ = "pool" + folder_;
    Secret_Key key;
    if (GetParam()) {
      Scrypt_Cost cheap;
      cheap.n = 1024;
      ASSERT_TRUE(Pool::create(url, uuid_, Pool_Secret(Pool_Secret::PASSPHRASE, "long enough"), cheap, key, error_))
          << error_;
      hold_pool_key(uuid_, key);
    } else {
      ASSERT_TRUE(Pool::create(url, uuid_, error_)) << error_;
    }
    ASSERT_TRUE(Pool::open(url, uuid_, pool_, error_)) << error_;
    Pool_Entry entry;
    entry.uuid = uuid_;
    entry.name = "disk";
    entry.url = url;
    entry.encrypt = GetParam();
    ASSERT_TRUE(store_->add_pool(entry, error_)) << error_;
    for (const char* const set : {"a", "b", "c"})
      commit(set);
  }
  void TearDown() override {
    Store::instance(nullptr);
    store_.reset();
    fs::remove_all(folder_);
  }

  Set_Record record(const std::string& set) {
    Set_Record record;
    record.uuid = set;
    record.uri = "h/r/" + set;
    record.seq = static_cast<unsigned>(set[0] - 'a') + 1;
    record.start_time = "2026-01-01 00:00:00";
    Set_Cipher_ptr cipher;
    EXPECT_TRUE(make_set_cipher(pool_, set, cipher, error_) && seal_record(cipher, record, error_)) << error_;
    return record;
  }
  void commit(const std::string& set) {
    ASSERT_TRUE(pool_.make_set_folder("h/r/" + set, error_)) << error_;
    ASSERT_TRUE(commit_set_record(pool_, record(set), error_)) << error_;
  }
  std::string path(const std::string& set) const { return pool_.set_folder("h/r/" + set) + "/set.json"; }
  std::string roll_path() const { return pool_.folder() + "/sets.json"; }
  static std::string text(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  static void text(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

  /// The sets that are found, and what is wrong with them.
  Names sets() {
    problems_.clear();
    Names found;
    for (const Set_Record& record : pool_.sets("", problems_))
      found.push_back(record.uuid);
    return found;
  }
  void expect_problem(const std::string& words) {
    ASSERT_EQ(1u, problems_.size()) << (problems_.size() > 1 ? problems_[1] : "");
    EXPECT_NE(std::string::npos, problems_[0].find(words)) << problems_[0];
  }

  std::string folder_, uuid_, error_;
  std::unique_ptr<Store> store_;
  Pool pool_;
  Names problems_;
};

TEST_P(Rolls, sets_that_were_committed_are_good) {
  EXPECT_EQ((Names{"a", "b", "c"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_EQ(Names(), sets_taken_away(pool_));
}

TEST_P(Rolls, set_that_was_taken_away_is_named) {
  fs::remove_all(pool_.set_folder("h/r/b"));
  EXPECT_EQ((Names{"a", "c"}), sets());
  ASSERT_EQ(1u, sets_taken_away(pool_).size());
  EXPECT_NE(std::string::npos, sets_taken_away(pool_)[0].find("the set b is on the pool's roll and was taken away"));
  // The next change is none of an operator's consent.
  commit("d");
  EXPECT_EQ(1u, sets_taken_away(pool_).size());
  ASSERT_TRUE(trust_pool(pool_, error_)) << error_;
  EXPECT_EQ(Names(), sets_taken_away(pool_));
}

TEST_P(Rolls, set_that_is_put_there_is_named_and_hides_nothing) {
  Set_Record foreign = record("x");
  foreign.replaces = {"a", "b"};
  Set_Cipher_ptr cipher;
  ASSERT_TRUE(make_set_cipher(pool_, "x", cipher, error_) && seal_record(cipher, foreign, error_)) << error_;
  ASSERT_TRUE(pool_.make_set_folder("h/r/x", error_)) << error_;
  ASSERT_TRUE(write_set_record(pool_.set_folder("h/r/x"), foreign, error_)) << error_;
  EXPECT_EQ((Names{"a", "b", "c", "x"}), sets());
  expect_problem("the set x in " + pool_.set_folder("h/r/x") + " is not on the pool's roll");
  commit("d");
  EXPECT_EQ((Names{"a", "b", "c", "d", "x"}), sets());
  expect_problem("the set x");
  ASSERT_TRUE(trust_pool(pool_, error_)) << error_;
  EXPECT_EQ((Names{"c", "d", "x"}), sets());
  EXPECT_EQ(Names(), problems_);
}

TEST_P(Rolls, removed_set_that_is_put_back_is_named) {
  fs::copy(pool_.set_folder("h/r/b"), folder_ + "/kept", fs::copy_options::recursive);
  ASSERT_TRUE(announce_removals(pool_, {"b"}, error_) && pool_.remove_set("h/r/b", error_) &&
              settle_removals(pool_, {"b"}, error_))
      << error_;
  EXPECT_EQ((Names{"a", "c"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_EQ(Names(), sets_taken_away(pool_));
  fs::copy(folder_ + "/kept", pool_.set_folder("h/r/b"), fs::copy_options::recursive);
  EXPECT_EQ((Names{"a", "b", "c"}), sets());
  expect_problem("the set b in ");
}

TEST_P(Rolls, record_of_an_older_state_is_none) {
  const std::string old = text(path("b"));
  Set_Record again = record("b");
  again.backup_set_size = 7;
  Set_Cipher_ptr cipher;
  ASSERT_TRUE(make_set_cipher(pool_, "b", cipher, error_) && seal_record(cipher, again, error_) &&
              commit_set_record(pool_, again, error_))
      << error_;
  EXPECT_EQ((Names{"a", "b", "c"}), sets());
  EXPECT_EQ(Names(), problems_);
  text(path("b"), old);
  EXPECT_EQ((Names{"a", "c"}), sets());
  expect_problem("the record of the set b in " + pool_.set_folder("h/r/b") + " is not the one on the pool's roll");
}

TEST_P(Rolls, roll_that_is_missing_changed_or_older_is_named_until_it_is_trusted) {
  const std::string before = text(roll_path());
  commit("d");
  const std::string now = text(roll_path());
  std::string changed = now;
  changed[changed.find("\"generation\":") + 13] ^= 1;
  for (const std::string& bad : {std::string(), before, changed, std::string("{}")}) {
    fs::remove(roll_path());
    if (!bad.empty())
      text(roll_path(), bad);
    sets();
    ASSERT_FALSE(problems_.empty()) << bad;
    EXPECT_NE(std::string::npos, problems_[0].find("the pool's roll of sets " + roll_path())) << problems_[0];
    // Neither does a change make it good.
    commit("e");
    sets();
    ASSERT_FALSE(problems_.empty()) << bad;
    EXPECT_NE(std::string::npos, problems_[0].find("the pool's roll of sets " + roll_path())) << problems_[0];
    ASSERT_TRUE(trust_pool(pool_, error_)) << error_;
    EXPECT_EQ((Names{"a", "b", "c", "d", "e"}), sets());
    EXPECT_EQ(Names(), problems_);
    ASSERT_TRUE(announce_removals(pool_, {"e"}, error_) && pool_.remove_set("h/r/e", error_) &&
                settle_removals(pool_, {"e"}, error_))
        << error_;
  }
}

TEST_P(Rolls, pool_of_an_earlier_version_gets_its_roll_with_the_next_change) {
  fs::remove(roll_path());
  ASSERT_TRUE(forget_known_roll(*store_, uuid_, error_)) << error_;
  EXPECT_EQ((Names{"a", "b", "c"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_FALSE(fs::exists(roll_path()));
  commit("d");
  EXPECT_EQ((Names{"a", "b", "c", "d"}), sets());
  EXPECT_EQ(Names(), problems_);
  fs::remove_all(pool_.set_folder("h/r/a"));
  EXPECT_EQ(1u, sets_taken_away(pool_).size());
}

/// As a process leaves it that is killed between the steps of a change, by what is then on disk.
TEST_P(Rolls, change_that_is_cut_short_at_any_step_leaves_no_problem) {
  ASSERT_TRUE(pool_.make_set_folder("h/r/d", error_)) << error_;
  const Set_Record coming = record("d");
  const std::string before = text(roll_path());
  ASSERT_TRUE(commit_set_record(pool_, coming, error_)) << error_;
  const std::string record_text = text(path("d"));
  // The roll as it is between the two steps is what a commit leaves whose record cannot be written.
  fs::remove(path("d"));
  ASSERT_TRUE(trust_pool(pool_, error_)) << error_;
  fs::create_directory(path("d"));
  ASSERT_FALSE(commit_set_record(pool_, coming, error_));
  fs::remove(path("d"));
  const std::string announced = text(roll_path());
  EXPECT_NE(std::string::npos, announced.find("\"next\""));
  EXPECT_EQ((Names{"a", "b", "c"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_EQ(Names(), sets_taken_away(pool_));
  text(path("d"), record_text);
  EXPECT_EQ((Names{"a", "b", "c", "d"}), sets());
  EXPECT_EQ(Names(), problems_);
  // Whoever comes next ends it, and no trace stays of a set that did not come.
  commit("e");
  EXPECT_EQ(std::string::npos, text(roll_path()).find("\"next\""));
  EXPECT_EQ((Names{"a", "b", "c", "d", "e"}), sets());
  EXPECT_EQ(Names(), problems_);
  fs::remove_all(pool_.set_folder("h/r/d"));
  EXPECT_EQ(1u, sets_taken_away(pool_).size());
  ASSERT_TRUE(trust_pool(pool_, error_)) << error_;

  ASSERT_TRUE(announce_removals(pool_, {"a", "b"}, error_)) << error_;
  EXPECT_EQ((Names{"a", "b", "c", "e"}), sets());
  EXPECT_EQ(Names(), problems_);
  ASSERT_TRUE(pool_.remove_set("h/r/a", error_)) << error_;
  EXPECT_EQ((Names{"b", "c", "e"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_EQ(Names(), sets_taken_away(pool_));
  commit("f");
  EXPECT_EQ((Names{"b", "c", "e", "f"}), sets());
  EXPECT_EQ(Names(), problems_);
  EXPECT_EQ(Names(), sets_taken_away(pool_));
}

TEST_P(Rolls, members_that_anything_is_decided_by_cannot_be_changed) {
  json_spirit::Value value;
  ASSERT_TRUE(json_spirit::read(text(path("b")), value));
  const json_spirit::Object whole = value.get_obj();
  for (const std::string member : {"replaces", "start_time", "bases", "type", "seq", "media", "incarnation"}) {
    json_spirit::Object forged = whole;
    if (member == "replaces" || member == "bases")
      forged[member] = json_spirit::Array{json_spirit::Value("a")};
    else if (member == "seq")
      forged[member] = 9;
    else if (member == "media")
      forged[member] = json_spirit::Array();
    else
      forged[member] = "2030-01-01 00:00:00";
    if (member == "media" && forged[member] == whole.at(member))
      continue;
    // As one of an earlier version, which has no check.
    forged.erase("sha256");
    forged.erase("checked");
    text(path("b"), json_spirit::write(forged));
    EXPECT_EQ((Names{"a", "c"}), sets()) << member;
    ASSERT_EQ(1u, problems_.size()) << member;
    // In an encrypted pool also where there is no roll to compare with.
    fs::rename(roll_path(), roll_path() + ".aside");
    ASSERT_TRUE(forget_known_roll(*store_, uuid_, error_)) << error_;
    sets();
    EXPECT_EQ(GetParam() ? 1u : 0u, problems_.size()) << member;
    if (GetParam())
      expect_problem("was changed by somebody who does not have the pool's key");
    fs::rename(roll_path() + ".aside", roll_path());
  }
}

INSTANTIATE_TEST_SUITE_P(plain_and_encrypted, Rolls, testing::Bool());

TEST(Set_Rolls, roll_comes_back_as_it_was_written) {
  Set_Roll roll, read;
  roll.generation = 7;
  roll.doubt = "why";
  roll.sets["a"] = {"h/r/a", 3, "hash", "", false};
  roll.sets["b"] = {"h/r/b", 4, "", "next", true};
  Secret_Key key, other;
  other.data()[0] = static_cast<unsigned char>(key.data()[0] + 1);
  std::string error;
  for (const Secret_Key* const with : {static_cast<const Secret_Key*>(nullptr), static_cast<const Secret_Key*>(&key)}) {
    const std::string text = roll.text("pool", with);
    ASSERT_TRUE(Set_Roll::parse(text, "pool", with != nullptr, with, read, error)) << error;
    EXPECT_EQ(text, read.text("pool", with));
    EXPECT_FALSE(Set_Roll::parse(text, "another", with != nullptr, with, read, error));
    EXPECT_FALSE(Set_Roll::parse(text, "pool", true, &other, read, error));
    for (size_t i = 0; i < text.size() - 1; ++i) {
      std::string flipped = text;
      flipped[i] = static_cast<char>(flipped[i] ^ 1);
      EXPECT_FALSE(Set_Roll::parse(flipped, "pool", with != nullptr, with, read, error)) << i;
    }
  }
}

} // namespace
