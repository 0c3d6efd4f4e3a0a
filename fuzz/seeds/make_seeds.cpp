#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "platform/mtf/medium_test_support.h"
#include "platform/pool/set_record.h"

#include <sqlite3.h>

#include <filesystem>

// Writes what the corpora of the binary formats begin with: fuzz_seeds FOLDER, as fuzz/corpus. Run it when a format
// gets a new version, beside the old one's files.

namespace fs = std::filesystem;

namespace {

std::string root;

Codec_Options codec(MTF_Compression compression) {
  Codec_Options options;
  options.compression = compression;
  options.level = 1;
  return options;
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

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: fuzz_seeds FOLDER\n", stderr);
    return 2;
  }
  root = argv[1];
  media();
  records();
  if (!catalogs()) {
    std::fputs("fuzz_seeds: no catalog could be made\n", stderr);
    return 1;
  }
  return 0;
}
