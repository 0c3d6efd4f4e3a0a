#include "platform/crypto/set_cipher.h"

#include "platform/crypto/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace {

Secret_Key key_of(unsigned char byte) {
  Secret_Key key;
  std::memset(key.data(), byte, Secret_Key::SIZE);
  return key;
}

const std::string SET = "0f0e0d0c-0b0a-0908-0706-050403020100";
const std::string TEXT = "what nobody shall read";
constexpr uint32_t HEAD = 0x4853424F;

class Sealed {
public:
  bool seal(const Object_Seal& seal, uint32_t stream = HEAD, uint32_t index = 0, std::string_view aad = "aad") {
    bytes = TEXT;
    return seal.seal(stream, index, aad, TEXT.data(), TEXT.size(), bytes.data(), tag);
  }
  bool opens(const Object_Seal& seal, uint32_t stream = HEAD, uint32_t index = 0, std::string_view aad = "aad") const {
    std::string out = bytes;
    const bool good = seal.open(stream, index, aad, bytes.data(), bytes.size(), out.data(), tag);
    EXPECT_EQ(good ? TEXT : std::string(TEXT.size(), '\0'), out);
    return good;
  }
  std::string bytes;
  unsigned char tag[AEAD_TAG] = {};
};

class cipher : public testing::Test {
protected:
  Set_Cipher_ptr made(const std::string& set = SET, unsigned char pool = 1) {
    const Set_Cipher_ptr made = Set_Cipher::make(key_of(pool), set, error_);
    EXPECT_TRUE(made) << error_;
    return made;
  }
  Object_Seal object(const Set_Cipher_ptr& set, uint64_t ordinal) {
    Object_Seal seal;
    EXPECT_TRUE(set->new_object(ordinal, seal));
    return seal;
  }
  std::string error_;
};

// Test case 16 of the GCM submission (256-bit key, 60 bytes, 20 bytes of associated data).
TEST(aead, matches_the_published_vector) {
  std::string key, nonce, aad, plain, expected;
  ASSERT_TRUE(from_hex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308", key));
  ASSERT_TRUE(from_hex("cafebabefacedbaddecaf888", nonce));
  ASSERT_TRUE(from_hex("feedfacedeadbeeffeedfacedeadbeefabaddad2", aad));
  ASSERT_TRUE(
      from_hex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6b525b16a"
               "edf5aa0de657ba637b39",
               plain));
  Secret_Key secret;
  std::memcpy(secret.data(), key.data(), Secret_Key::SIZE);
  std::string out(plain.size(), '\0');
  unsigned char tag[AEAD_TAG];
  const auto* const iv = reinterpret_cast<const unsigned char*>(nonce.data());
  ASSERT_TRUE(aead_seal(secret, iv, aad, plain.data(), plain.size(), out.data(), tag));
  EXPECT_EQ(
      "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a"
      "0abcc9f662",
      to_hex(reinterpret_cast<const unsigned char*>(out.data()), out.size()));
  EXPECT_EQ("76fc6ece0f4e1768cddf8853bb2d551b", to_hex(tag, sizeof tag));
  ASSERT_TRUE(aead_open(secret, iv, aad, out.data(), out.size(), out.data(), tag));
  EXPECT_EQ(plain, out);
}

// RFC 5869, test case 1: the first block of the expansion, from the extracted key of that case.
TEST(aead, derived_keys_match_the_published_vector) {
  std::string prk, info;
  ASSERT_TRUE(from_hex("077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5", prk));
  ASSERT_TRUE(from_hex("f0f1f2f3f4f5f6f7f8f9", info));
  Secret_Key from, key;
  std::memcpy(from.data(), prk.data(), Secret_Key::SIZE);
  ASSERT_TRUE(derive_key(from, info, key));
  EXPECT_EQ("3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf", to_hex(key.data(), Secret_Key::SIZE));
}

TEST_F(cipher, object_opens_under_the_kept_key_of_its_set) {
  const Set_Cipher_ptr set = made();
  const Object_Seal seal = object(set, 7);
  Sealed sealed;
  ASSERT_TRUE(sealed.seal(seal));
  EXPECT_EQ(std::string::npos, sealed.bytes.find(TEXT));
  const Set_Cipher_ptr again = Set_Cipher::open(key_of(1), SET, set->wrapped(), error_);
  ASSERT_TRUE(again) << error_;
  Object_Seal same;
  ASSERT_TRUE(again->object(7, seal.salt(), same));
  EXPECT_TRUE(sealed.opens(same));
}

TEST_F(cipher, nothing_opens_in_another_place) {
  const Set_Cipher_ptr set = made();
  const Object_Seal seal = object(set, 7);
  Sealed sealed;
  ASSERT_TRUE(sealed.seal(seal));
  EXPECT_TRUE(sealed.opens(seal));
  EXPECT_FALSE(sealed.opens(seal, HEAD + 1));
  EXPECT_FALSE(sealed.opens(seal, HEAD, 1));
  EXPECT_FALSE(sealed.opens(seal, HEAD, 0, "aae"));
  EXPECT_FALSE(sealed.opens(object(set, 7)));
  EXPECT_FALSE(sealed.opens(object(set, 8)));
  Object_Seal other;
  ASSERT_TRUE(set->object(8, seal.salt(), other));
  EXPECT_FALSE(sealed.opens(other));
  ASSERT_TRUE(made()->object(7, seal.salt(), other));
  EXPECT_FALSE(sealed.opens(other));
  for (size_t i = 0; i < sealed.bytes.size(); ++i) {
    sealed.bytes[i] ^= 1;
    EXPECT_FALSE(sealed.opens(seal)) << i;
    sealed.bytes[i] ^= 1;
  }
  sealed.tag[15] ^= 0x80;
  EXPECT_FALSE(sealed.opens(seal));
}

TEST_F(cipher, no_two_writings_of_an_object_share_a_key) {
  const Set_Cipher_ptr set = made();
  std::set<std::string> salts, texts;
  std::vector<Set_Cipher_ptr> instances = {set};
  for (int i = 0; i < 3; ++i)
    instances.push_back(Set_Cipher::open(key_of(1), SET, set->wrapped(), error_));
  for (const Set_Cipher_ptr& one : instances)
    for (int i = 0; i < 50; ++i) {
      const Object_Seal seal = object(one, 1);
      Sealed sealed;
      ASSERT_TRUE(sealed.seal(seal));
      EXPECT_TRUE(salts.insert(std::string(reinterpret_cast<const char*>(seal.salt()), Object_Seal::SALT)).second);
      EXPECT_TRUE(texts.insert(sealed.bytes).second);
    }
}

TEST_F(cipher, wrong_pool_key_is_told_from_damage_and_from_another_set) {
  const Set_Cipher_ptr set = made();
  EXPECT_FALSE(Set_Cipher::open(key_of(2), SET, set->wrapped(), error_));
  EXPECT_NE(std::string::npos, error_.find("under the key of another pool")) << error_;
  EXPECT_FALSE(Set_Cipher::open(key_of(1), "another", set->wrapped(), error_));
  EXPECT_NE(std::string::npos, error_.find("damaged")) << error_;
  const std::string text = set->wrapped();
  for (size_t i = 0; i < text.size(); ++i) {
    std::string bad = text;
    bad[i] = static_cast<char>(bad[i] ^ 1);
    EXPECT_FALSE(Set_Cipher::open(key_of(1), SET, bad, error_)) << i;
    EXPECT_NE(std::string::npos, error_.find("damaged")) << i << error_;
    EXPECT_FALSE(Set_Cipher::open(key_of(1), SET, text.substr(0, i), error_)) << i;
  }
}

TEST_F(cipher, texts_open_for_their_purpose_only) {
  const Set_Cipher_ptr set = made();
  for (const std::string& text : {std::string(), TEXT, std::string("\0\xff", 2), std::string(70000, 'x')}) {
    std::string sealed, twice, plain = "before";
    ASSERT_TRUE(set->seal_text("names", text, sealed));
    ASSERT_TRUE(set->seal_text("names", text, twice));
    EXPECT_NE(sealed, twice);
    ASSERT_TRUE(set->open_text("names", sealed, plain));
    EXPECT_EQ(text, plain);
    plain = "before";
    EXPECT_FALSE(set->open_text("figures", sealed, plain));
    EXPECT_FALSE(made()->open_text("names", sealed, plain));
    sealed[sealed.size() / 2] ^= 1;
    EXPECT_FALSE(set->open_text("names", sealed, plain));
    EXPECT_FALSE(set->open_text("names", "", plain));
    EXPECT_EQ("before", plain);
  }
}

TEST_F(cipher, keys_for_other_uses_differ) {
  const Set_Cipher_ptr set = made();
  std::set<std::string> keys;
  for (const char* purpose : {"a", "b", "ab", ""})
    for (const char* salt : {"", "1", "2", "b1"}) {
      Secret_Key key;
      ASSERT_TRUE(set->derive(purpose, salt, key));
      EXPECT_TRUE(keys.insert(to_hex(key.data(), Secret_Key::SIZE)).second) << purpose << salt;
    }
}

} // namespace
