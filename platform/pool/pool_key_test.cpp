#include "platform/pool/pool.h"
#include "platform/pool/set_keys.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

/// As little work as scrypt allows: the tests are not about its cost.
Scrypt_Cost cheap() {
  Scrypt_Cost cost;
  cost.n = 2;
  cost.r = 1;
  return cost;
}

Pool_Secret passphrase(const std::string& text) {
  return Pool_Secret(Pool_Secret::PASSPHRASE, text);
}
Pool_Secret key_file(const std::string& text) {
  return Pool_Secret(Pool_Secret::KEY_FILE, text);
}

bool equal(const Secret_Key& a, const Secret_Key& b) {
  return std::memcmp(a.data(), b.data(), Secret_Key::SIZE) == 0;
}

class Encrypted_Pools : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/pool_key_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
    url_ = "file://" + folder_ + "/pool";
    uuid_ = "pool-" + folder_;
  }
  void TearDown() override { fs::remove_all(folder_); }

  void make(const Pool_Secret& secret) {
    ASSERT_TRUE(Pool::create(url_, uuid_, secret, cheap(), key_, error_)) << error_;
    ASSERT_TRUE(Pool::open(url_, uuid_, pool_, error_)) << error_;
  }
  json_spirit::Object file() const {
    std::ifstream in(folder_ + "/pool/pool.json");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    json_spirit::Value value;
    EXPECT_TRUE(json_spirit::read(text, value));
    return value.get_obj();
  }
  void file(const json_spirit::Object& json) const {
    std::ofstream(folder_ + "/pool/pool.json") << json_spirit::write(json);
  }
  Set_Record record(const Set_Cipher_ptr& cipher) {
    Set_Record record;
    record.uuid = "set-uuid";
    record.uri = "host/res/act";
    record.name = "secret name";
    record.minor_resource_name = "/secret/path/";
    record.figures["saved"] = 5;
    record.figures["errors"] = json_spirit::Array{json_spirit::Value("secret key")};
    EXPECT_TRUE(seal_record(cipher, record, error_)) << error_;
    return record;
  }

  std::string folder_, url_, uuid_, error_;
  Secret_Key key_;
  Pool pool_;
};

TEST_F(Encrypted_Pools, key_comes_back_with_the_secret_alone) {
  make(passphrase("long enough"));
  EXPECT_TRUE(pool_.encrypted());
  Secret_Key key;
  ASSERT_TRUE(pool_.unlock(passphrase("long enough"), key, error_)) << error_;
  EXPECT_TRUE(equal(key_, key));
  EXPECT_FALSE(pool_.unlock(passphrase("long enougH"), key, error_));
  EXPECT_EQ("the passphrase is not the pool's", error_);
  EXPECT_FALSE(pool_.unlock(key_file("long enough"), key, error_));
  EXPECT_NE(std::string::npos, error_.find("locked with a passphrase")) << error_;
}

TEST_F(Encrypted_Pools, other_secret_opens_the_same_key_after_relocking) {
  make(passphrase("long enough"));
  const std::string file = std::string(32, 'k') + std::string("\0\n", 2);
  ASSERT_TRUE(pool_.relock(key_, key_file(file), cheap(), error_)) << error_;
  for (int round = 0; round < 2; ++round) {
    Secret_Key key;
    EXPECT_FALSE(pool_.unlock(passphrase("long enough"), key, error_));
    EXPECT_FALSE(pool_.unlock(key_file(file + "\n"), key, error_));
    EXPECT_EQ("the key file is not the pool's", error_);
    ASSERT_TRUE(pool_.unlock(key_file(file), key, error_)) << error_;
    EXPECT_TRUE(equal(key_, key));
    ASSERT_TRUE(Pool::open(url_, uuid_, pool_, error_)) << error_;
  }
  Secret_Key other = key_;
  other.data()[0] ^= 1;
  EXPECT_FALSE(pool_.relock(other, passphrase("long enough"), cheap(), error_));
}

TEST_F(Encrypted_Pools, parameters_of_scrypt_are_kept_and_used) {
  Scrypt_Cost cost;
  cost.n = 16;
  cost.r = 2;
  cost.p = 3;
  ASSERT_TRUE(Pool::create(url_, uuid_, passphrase("long enough"), cost, key_, error_)) << error_;
  const json_spirit::Object locked = json_spirit::find(file(), "key")->get_obj();
  EXPECT_EQ(16u, json_spirit::find(locked, "scrypt_n")->get_uint64());
  EXPECT_EQ(2u, json_spirit::find(locked, "scrypt_r")->get_uint64());
  EXPECT_EQ(3u, json_spirit::find(locked, "scrypt_p")->get_uint64());
}

TEST_F(Encrypted_Pools, damage_to_any_member_is_told_as_damage) {
  make(passphrase("long enough"));
  const json_spirit::Object good = file();
  const auto refused = [&](const char* member, const json_spirit::Value& value) {
    json_spirit::Object bad = good;
    json_spirit::Object locked = json_spirit::find(good, "key")->get_obj();
    locked[member] = value;
    bad["key"] = locked;
    file(bad);
    Pool pool;
    Secret_Key key;
    EXPECT_TRUE(Pool::open(url_, uuid_, pool, error_)) << error_;
    EXPECT_FALSE(pool.unlock(passphrase("long enough"), key, error_)) << member;
    EXPECT_NE(std::string::npos, error_.find("damaged")) << member << ": " << error_;
  };
  refused("salt", std::string(64, '0'));
  refused("salt", "00");
  refused("salt", std::string(64, 'x'));
  refused("kind", "else");
  refused("wrapped", "");
  refused("wrapped", "obsk1:AAAA");
  refused("scrypt_n", 4);
  refused("scrypt_n", 3);
  refused("scrypt_n", 1ull << 50);
  refused("scrypt_r", 0);
  refused("scrypt_r", 2);
  refused("scrypt_p", 1000000000);
  refused("scrypt_p", "1");
  json_spirit::Object bad = good;
  bad["encryption"] = "rot13";
  file(bad);
  Pool pool;
  EXPECT_FALSE(Pool::open(url_, uuid_, pool, error_));
  bad = good;
  bad.erase("key");
  file(bad);
  EXPECT_FALSE(Pool::open(url_, uuid_, pool, error_));
}

TEST_F(Encrypted_Pools, secrets_are_read_from_files_and_short_ones_refused) {
  const std::string path = folder_ + "/secret";
  const auto put = [&](const std::string& text) { std::ofstream(path, std::ios::binary) << text; };
  Pool_Secret secret;
  put("long enough\r\n");
  ASSERT_TRUE(secret.read(Pool_Secret::PASSPHRASE, path, error_)) << error_;
  EXPECT_EQ("long enough", secret.bytes());
  put("1234567\n");
  EXPECT_FALSE(secret.read(Pool_Secret::PASSPHRASE, path, error_));
  EXPECT_NE(std::string::npos, error_.find("too short"));
  put(std::string(31, 'x'));
  EXPECT_FALSE(secret.read(Pool_Secret::KEY_FILE, path, error_));
  put(std::string(31, 'x') + "\n");
  ASSERT_TRUE(secret.read(Pool_Secret::KEY_FILE, path, error_)) << error_;
  EXPECT_EQ(32u, secret.bytes().size());
  put(std::string(Pool_Secret::MOST + 1, 'x'));
  EXPECT_FALSE(secret.read(Pool_Secret::KEY_FILE, path, error_));
  EXPECT_NE(std::string::npos, error_.find("too long"));
  EXPECT_FALSE(secret.read(Pool_Secret::KEY_FILE, folder_ + "/missing", error_));
  EXPECT_FALSE(secret.read(Pool_Secret::KEY_FILE, folder_, error_));
}

TEST_F(Encrypted_Pools, sets_have_keys_of_their_own_under_the_pools) {
  make(passphrase("long enough"));
  Set_Cipher_ptr cipher, again;
  EXPECT_FALSE(make_set_cipher(pool_, "set-uuid", cipher, error_));
  EXPECT_NE(std::string::npos, error_.find("not known here")) << error_;
  hold_pool_key(uuid_, key_);
  ASSERT_TRUE(make_set_cipher(pool_, "set-uuid", cipher, error_)) << error_;
  ASSERT_TRUE(open_set_cipher(pool_, "set-uuid", cipher->wrapped(), again, error_)) << error_;
  EXPECT_FALSE(open_set_cipher(pool_, "other-uuid", cipher->wrapped(), again, error_));
  EXPECT_FALSE(open_set_cipher(pool_, "set-uuid", "", again, error_));
  EXPECT_NE(std::string::npos, error_.find("is not encrypted, and the pool that it lies in is")) << error_;
  Secret_Key other = key_;
  other.data()[5] ^= 1;
  hold_pool_key(uuid_, other);
  EXPECT_FALSE(open_set_cipher(pool_, "set-uuid", cipher->wrapped(), again, error_));
  EXPECT_NE(std::string::npos, error_.find("is not its own")) << error_;
  Pool plain;
  ASSERT_TRUE(Pool::create("file://" + folder_ + "/plain", "plain", error_)) << error_;
  ASSERT_TRUE(Pool::open("file://" + folder_ + "/plain", "plain", plain, error_)) << error_;
  ASSERT_TRUE(make_set_cipher(plain, "set-uuid", again, error_)) << error_;
  EXPECT_FALSE(again);
  EXPECT_FALSE(open_set_cipher(plain, "set-uuid", cipher->wrapped(), again, error_));
}

TEST_F(Encrypted_Pools, record_tells_names_to_the_key_alone) {
  make(passphrase("long enough"));
  hold_pool_key(uuid_, key_);
  Set_Cipher_ptr cipher;
  ASSERT_TRUE(make_set_cipher(pool_, "set-uuid", cipher, error_)) << error_;
  const Set_Record written = record(cipher);
  EXPECT_EQ("secret name", written.name);
  EXPECT_EQ(std::string::npos, json_spirit::write(written.to_json()).find("secret"));
  ASSERT_TRUE(pool_.make_set_folder("host/res/act", error_)) << error_;
  ASSERT_TRUE(write_set_record(pool_.set_folder("host/res/act"), written, error_)) << error_;
  Set_Record raw;
  ASSERT_TRUE(read_set_record(pool_.set_folder("host/res/act"), raw, error_)) << error_;
  EXPECT_EQ("", raw.name);
  EXPECT_EQ(5, json_spirit::find(raw.figures, "saved")->get_int());
  EXPECT_EQ(nullptr, json_spirit::find(raw.figures, "errors"));
  std::vector<std::string> errors;
  const std::vector<Set_Record> sets = pool_.sets("", errors);
  ASSERT_EQ(1u, sets.size());
  EXPECT_EQ("secret name", sets[0].name);
  EXPECT_EQ("/secret/path/", sets[0].minor_resource_name);
  EXPECT_EQ("secret key", json_spirit::find(sets[0].figures, "errors")->get_array()[0].get_str());
  EXPECT_EQ(json_spirit::write(written.to_json()), json_spirit::write(sets[0].to_json()));
  raw.uuid = "other";
  EXPECT_FALSE(open_record(*Set_Cipher::make(key_, "other", error_), raw, error_));
}

} // namespace
