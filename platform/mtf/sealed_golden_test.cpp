#include "platform/mtf/medium_test_support.h"

#include "platform/catalog/catalog_writer.h"
#include "platform/catalog/open_catalog.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/verify.h"

#include <cstring>
#include <filesystem>

// An encrypted pool of the first version with one set, and the key file that opens it: reads for ever.

namespace fs = std::filesystem;

namespace {

/// The folder inside the source tree: tests run from anywhere in it or in a build folder under it.
std::string golden_folder() {
  const std::string path = "tests/golden/encrypted_pool";
  std::string up;
  for (int i = 0; i < 8; ++i, up += "../")
    if (::access((up + "tests/golden").c_str(), R_OK) == 0)
      return fs::absolute(up + path).lexically_normal().string();
  return path;
}

std::vector<Test_Object> golden_objects() {
  return {{"empty", ""},
          {"folder/hello.txt", "Hello, MTF!\n"},
          {"folder/longer", prose(1500, 1)},
          {"a//b", "behind an empty component"},
          {"not utf-8 \xFF", "a name that needs a substitute"}};
}

/// Makes the pool anew where there is none.
void make(const std::string& folder) {
  std::string error;
  Secret_Key key;
  fs::create_directories(folder);
  save(folder + "/key", "this is the key file of the golden pool\n");
  Pool_Secret secret;
  ASSERT_TRUE(secret.read(Pool_Secret::KEY_FILE, folder + "/key", error)) << error;
  const std::string url = "file://" + folder + "/pool";
  ASSERT_TRUE(Pool::create(url, "golden-pool", secret, Scrypt_Cost(), key, error)) << error;
  Pool pool;
  ASSERT_TRUE(Pool::open(url, "golden-pool", pool, error)) << error;
  hold_pool_key("golden-pool", key);
  Set_Record record;
  record.uuid = test_identity().set_uuid;
  record.uri = "host/resource/activity";
  record.name = "golden name";
  record.minor_resource_name = "/bucket/";
  record.seq = record.channels = 1;
  record.encryption = "aes-256-gcm";
  record.figures["errors"] = json_spirit::Array{json_spirit::Value("golden error")};
  record.figures["saved"] = 5;
  Set_Cipher_ptr cipher;
  ASSERT_TRUE(make_set_cipher(pool, record.uuid, cipher, error)) << error;
  ASSERT_TRUE(pool.make_set_folder(record.uri, error)) << error;
  const auto objects = golden_objects();
  const std::string medium = pool.set_folder(record.uri) + "/" + medium_name(0);
  const auto places = write_medium(medium, objects, {MTF_COMPRESSION_ZSTD, 1, cipher}, Way::IMAGE);
  record.media.push_back({medium_name(0), fs::file_size(medium), test_identity().family});
  const auto catalog = Catalog_Writer::create(pool.set_folder(record.uri), error, cipher);
  ASSERT_TRUE(catalog) << error;
  ASSERT_TRUE(catalog->add_set({0, record.uuid, record.uri, 1}));
  for (size_t i = 0; i < objects.size(); ++i) {
    Catalog_Object object;
    object.path = "bucket/" + objects[i].key;
    object.ordinal = i + 1;
    object.size = places[i].size;
    object.mtime = test_head(objects[i], i + 1).mtime;
    object.offset = places[i].offset;
    object.stored = places[i].stored;
    std::memcpy(object.sha256, places[i].sha256, sizeof object.sha256);
    ASSERT_TRUE(catalog->add_object(object));
    ASSERT_TRUE(catalog->add_visit({object.path.substr(0, object.path.rfind('/') + 1), i + 1, i + 1, true}));
  }
  ASSERT_TRUE(catalog->finish()) << catalog->error();
  ASSERT_TRUE(seal_record(cipher, record, error)) << error;
  ASSERT_TRUE(write_set_record(pool.set_folder(record.uri), record, error)) << error;
}

TEST(golden_encrypted_pool, reads_for_ever) {
  const std::string folder = golden_folder();
  if (std::getenv("WRITE_GOLDEN_MEDIA") != nullptr && !fs::exists(folder))
    make(folder);
  std::string error;
  Pool pool;
  Pool_Secret secret;
  Secret_Key key;
  ASSERT_TRUE(Pool::open("file://" + folder + "/pool", "golden-pool", pool, error)) << error;
  ASSERT_TRUE(secret.read(Pool_Secret::KEY_FILE, folder + "/key", error)) << error;
  ASSERT_TRUE(pool.unlock(secret, key, error)) << error;
  hold_pool_key(pool.uuid(), key);
  std::vector<std::string> errors;
  const std::vector<Set_Record> sets = pool.sets("", errors);
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0].name, "golden name");
  EXPECT_EQ(sets[0].minor_resource_name, "/bucket/");
  EXPECT_EQ(json_spirit::find(sets[0].figures, "errors")->get_array()[0].get_str(), "golden error");
  Verify_Report report;
  EXPECT_TRUE(verify_set(pool, sets[0], {}, report)) << report.failure;
  const auto objects = golden_objects();
  EXPECT_EQ(report.good, objects.size());

  Set_Cipher_ptr cipher;
  ASSERT_TRUE(open_set_cipher(pool, sets[0], cipher, error)) << error;
  const std::string medium = pool.set_folder(sets[0].uri) + "/" + medium_name(0);
  Medium_Set said;
  ASSERT_TRUE(read_medium_set(medium, said, error)) << error;
  EXPECT_EQ(said.wrapped_key, sets[0].data_key);
  const auto reader = Medium_Reader::open(medium, sets[0].media[0].family, error, cipher);
  const auto catalog = open_set_catalog(pool, sets[0], error);
  ASSERT_TRUE(reader && catalog) << error;
  for (const Test_Object& object : objects) {
    Catalog_Object found;
    ASSERT_TRUE(catalog->find("bucket/" + object.key, found, error)) << object.key << error;
    const auto one = reader->object(found.offset, error);
    std::string content;
    ASSERT_TRUE(one && read_all(*one, content) == Read_Outcome::END) << error;
    EXPECT_EQ(content, object.content);
  }
}

} // namespace
