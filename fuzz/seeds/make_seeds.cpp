#include "fuzz/fuzz_cipher.h"
#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "platform/mtf/medium_test_support.h"
#include "platform/mtf/set_copy.h"
#include "platform/pool/set_record.h"
#include "platform/pool/set_roll.h"

#include <sqlite3.h>

#include <filesystem>

// Writes what the corpora of the binary formats begin with: fuzz_seeds FOLDER, as fuzz/corpus. Run it when a format
// gets a new version, beside the old one's files.

namespace fs = std::filesystem;

namespace {

std::string root;

Codec_Options codec(MTF_Compression compression, const Set_Cipher_ptr& cipher = nullptr) {
  Codec_Options options;
  options.compression = compression;
  options.cipher = cipher;
  options.level = 1;
  return options;
}

/// Objects with attributes, and the copies of a record and a catalog behind them.
void whole_medium(const std::string& path, const Set_Cipher_ptr& cipher) {
  std::string error;
  Medium_Identity identity = test_identity();
  identity.cipher = cipher;
  ::unlink(path.c_str());
  const auto writer = Medium_Writer::create(path, identity, error);
  unsigned long long ordinal = 0;
  for (const Test_Object& object : {Test_Object{"a", "hello"}, Test_Object{"d/\xFF/f", noise(300, 1)}}) {
    Object_Head head = test_head(object, ++ordinal);
    head.attributes.common = "{\"headers\":{\"content-type\":\"text/plain\"}}";
    head.attributes.own = "{\"etag\":\"0123456789abcdef\"}";
    Object_Image image;
    Stored_Object stored;
    if (!writer->set_directory(directory_of(head.path)) ||
        !image.encode(head, object.content.data(), codec(MTF_COMPRESSION_NONE, cipher), error) ||
        !writer->append(image, stored))
      std::abort();
  }
  const std::string catalog = path + ".catalog";
  save(catalog, prose(1000, 1) + noise(900, 2));
  const Set_Copy copy{"{\"uuid\":\"" + identity.set_uuid + "\",\"name\":\"" + std::string(300, 'n') + "\"}", catalog};
  if (!writer->finish(&copy))
    std::abort();
  fs::remove(catalog);
}

void media() {
  const std::string folder = root + "/medium/";
  fs::create_directories(folder);
  const std::vector<Test_Object> small = {{"a", "hello"}, {"b", ""}, {"d/e/f", noise(700, 1)}};
  write_medium(folder + "plain", small, codec(MTF_COMPRESSION_NONE), Way::IMAGE);
  write_medium(folder + "streamed", small, codec(MTF_COMPRESSION_NONE), Way::STREAMED);
  write_medium(folder + "empty", {}, codec(MTF_COMPRESSION_NONE), Way::IMAGE);
  write_medium(folder + "names", {{std::string("\xFF\xFE/\x01", 4), "x"}, {std::string(600, 'k'), "y"}},
               codec(MTF_COMPRESSION_NONE), Way::IMAGE);
  const std::vector<Test_Object> texts = {{"t", prose(3000, 1)}, {"u/v", prose(40000, 2)}};
  write_medium(folder + "zstd", texts, codec(MTF_COMPRESSION_ZSTD), Way::IMAGE);
  write_medium(folder + "zstd_frames", {{"z", std::string((1u << 20) + 5000, 'z')}}, codec(MTF_COMPRESSION_ZSTD),
               Way::STREAMED);
  write_medium(folder + "lzop", texts, codec(MTF_COMPRESSION_LZOP), Way::IMAGE);
  write_medium(folder + "sealed_frames", {{"z", std::string((1u << 20) + 5000, 'z')}, {"e", ""}},
               codec(MTF_COMPRESSION_ZSTD, fuzz_cipher()), Way::STREAMED);
  for (const bool sealed : {false, true})
    whole_medium(folder + (sealed ? "sealed" : "copy"), sealed ? fuzz_cipher() : nullptr);
}

/// Media as runs leave them that end at once.
void torn_media() {
  const std::string folder = root + "/salvage/";
  fs::create_directories(folder);
  for (const bool sealed : {false, true}) {
    const std::string kind = sealed ? "sealed_" : "plain_";
    whole_medium(folder + "whole", sealed ? fuzz_cipher() : nullptr);
    const std::string whole = load(folder + "whole");
    const size_t end = whole.rfind("ESET");
    save(folder + kind + "without_end", whole.substr(0, end));
    save(folder + kind + "torn_copy", whole.substr(0, end + 1500));
    save(folder + kind + "torn_object", whole.substr(0, whole.rfind("OBSD", end)));
    if (sealed)
      fs::remove(folder + "whole");
  }
}

void fill(Catalog_Writer& writer) {
  writer.add_set({0, "0f0e0d0c-0b0a-0908-0706-050403020100", "host/resource/activity", 3});
  writer.add_set({1, "1f1e1d1c-1b1a-1918-1716-151413121110", "host/resource/before", 2});
  const char* const names[] = {"bucket/a/1", "bucket/a/2", "bucket/a/3", "bucket/a/b/4", "bucket/c", "bucket/b"};
  unsigned long long ordinal = 0;
  for (const char* name : names) {
    Catalog_Object object;
    object.path = name;
    object.ordinal = ++ordinal;
    object.size = 100 * ordinal;
    object.mtime = 1700000000 + static_cast<long long>(ordinal);
    object.set = ordinal % 2;
    object.offset = 4096 * ordinal;
    object.stored = 2048;
    writer.add_object(object);
  }
  writer.add_folder("bucket/empty/");
  writer.add_visit({"bucket/a/", 1, 3, true});
  writer.add_visit({"bucket/a/b/", 4, 4, true});
  writer.add_visit({"bucket/", 5, 6, false});
  writer.add_problem({Catalog_Problem::SKIPPED, "bucket/x", 2, "it is gone"});
  writer.add_problem({Catalog_Problem::NOT_LISTED, "bucket/secret", 13, "no access"});
  writer.add_deletion({"bucket/a/gone", 5, 1600000000});
  writer.add_deletion({"bucket/z", 0, 0});
}

/// The same rows in pages so small that mutations meet each of them.
bool shrink(const std::string& path) {
  sqlite3* db = nullptr;
  const bool done = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, "PRAGMA journal_mode=DELETE; PRAGMA page_size=512; VACUUM", nullptr, nullptr,
                                 nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return done;
}

/// Writes a catalog with the tables of a merged set, in pages as small as can be.
bool merged_catalog(const std::string& scratch, const Set_Cipher_ptr& cipher) {
  std::string error;
  const std::string made = scratch + "/made";
  fs::create_directories(made);
  const auto writer = Catalog_Writer::create(made, error, cipher);
  if (!writer)
    return false;
  fill(*writer);
  if (!writer->finish())
    return false;
  Catalog_Db db;
  if (!copy_catalog(made, scratch, db, error, cipher, cipher))
    return false;
  auto moves = Catalog_Moves::make(db, error);
  if (!moves || !moves->add("1f1e1d1c-1b1a-1918-1716-151413121110", 0, 4096, {0, 8192, 2048}) ||
      !moves->add("2f2e2d2c-2b2a-2928-2726-252423222120", 0, 8192, {1, 4096, 1024}))
    return false;
  moves.reset();
  return finish_catalog_copy(db, scratch, error) && (cipher || shrink(scratch + "/" + catalog::FILE_NAME));
}

bool catalogs() {
  const std::string folder = root + "/catalog/";
  fs::create_directories(folder);
  const std::string scratch = folder + "scratch";
  fs::create_directories(scratch);
  std::string error;
  {
    const auto writer = Catalog_Writer::create(scratch, error);
    if (!writer)
      return false;
    fill(*writer);
    if (!writer->finish())
      return false;
  }
  const std::string made = scratch + "/" + catalog::FILE_NAME;
  fs::copy_file(made, folder + "whole", fs::copy_options::overwrite_existing);
  const bool done = shrink(made);
  fs::copy_file(made, folder + "small", fs::copy_options::overwrite_existing);
  fs::remove_all(scratch);
  for (const Set_Cipher_ptr& cipher : {Set_Cipher_ptr(), fuzz_cipher()}) {
    fs::create_directories(scratch);
    if (!merged_catalog(scratch, cipher))
      return false;
    fs::copy_file(made, folder + (cipher ? "encrypted" : "moved"), fs::copy_options::overwrite_existing);
    fs::remove_all(scratch);
  }
  return done;
}

void records() {
  const std::string folder = root + "/set_record/";
  fs::create_directories(folder);
  Set_Record record;
  record.uuid = "0f0e0d0c-0b0a-0908-0706-050403020100";
  record.uri = "host/resource/activity";
  record.type = "incremental";
  record.bases = {"1f1e1d1c-1b1a-1918-1716-151413121110"};
  record.seq = 3;
  record.channels = 2;
  record.start_time = record.end_time = "2026-01-01 00:00:00";
  record.source_size = 1ull << 40;
  record.media = {{"0.mtf", 4096, 7}, {"1.mtf", 8192, 7}};
  record.figures["listed"] = 3;
  record.figures["errors"] = json_spirit::Array{json_spirit::Value("bucket/\xFF")};
  save(folder + "full", json_spirit::write_formatted(record.to_json()) + "\n");
  save(folder + "least", json_spirit::write(Set_Record().to_json()));
}

void rolls() {
  const std::string folder = root + "/set_roll/";
  fs::create_directories(folder);
  Set_Roll roll;
  save(folder + "least", roll.text("pool", nullptr));
  roll.generation = ~0ull;
  roll.doubt = "why";
  roll.sets["a"] = {"h/r/a", 1, "0123", "", false};
  roll.sets["b"] = {"h/r/b", 65535, "0123", "4567", false};
  roll.sets["c"] = {"h/r/c", 2, "89ab", "", true};
  save(folder + "full", roll.text("pool", nullptr));
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: fuzz_seeds FOLDER\n", stderr);
    return 2;
  }
  root = argv[1];
  media();
  torn_media();
  records();
  rolls();
  if (!catalogs()) {
    std::fputs("fuzz_seeds: no catalog could be made\n", stderr);
    return 1;
  }
  return 0;
}
