#include "fuzz/fuzz_cipher.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/medium_bytes.h"
#include "platform/mtf/media_check.h"
#include "platform/mtf/medium_reader.h"
#include "platform/mtf/object_stream.h"
#include "platform/mtf/set_copy.h"

#include <cstring>
#include <openssl/sha.h>

using namespace MTF_Format;

// A medium, encrypted or not: the strict check, the dump, the copy at its end, the walk, and each object that the walk
// names. No object may read to its end
// with other bytes than its digest says, and a medium that the check has nothing against must read whole.

namespace {

/// Whether the object at `offset` reads to its end.
bool reads(Medium_Reader& medium, unsigned long long offset) {
  std::string error;
  const auto object = medium.object(offset, error);
  if (!object)
    return false;
  std::string content;
  char buffer[70001];
  for (;;) {
    size_t got = 0;
    const Read_Outcome outcome = object->read(buffer, sizeof buffer, got);
    if (got > sizeof buffer)
      fuzz_fail("an object's reader hands out more than it was asked for");
    content.append(buffer, got);
    if (outcome == Read_Outcome::MORE)
      continue;
    if (outcome != Read_Outcome::END)
      return false;
    unsigned char sha256[32];
    SHA256(bytes_of(content), content.size(), sha256);
    if (std::memcmp(sha256, object->sha256(), sizeof sha256) != 0 || content.size() != object->head().size)
      fuzz_fail("an object reads to its end with bytes that are not its own");
    return true;
  }
}

} // namespace

void fuzz_mend(std::string& input) {
  mend_medium(input);
}

const std::vector<std::string>& fuzz_words() {
  return medium_words();
}

void fuzz_one(std::string_view input) {
  static Fuzz_File file;
  file.fill(input);

  std::string error;
  Medium_Set set;
  const Set_Cipher_ptr cipher =
      read_medium_set(file.path(), set, error) && !set.wrapped_key.empty() ? fuzz_cipher() : nullptr;
  Media_Figures figures;
  unsigned long long problems = 0;
  const auto count = [&](const Media_Problem&) { return ++problems < 10000; };
  if (cipher) // as whoever has not got the key
    check_medium(file.path(), count, figures, error);
  problems = 0;
  const bool checked = check_medium(file.path(), count, figures, error, cipher);
  unsigned long long lines = 0;
  dump_medium(
      file.path(), [&](const std::string&) { return ++lines < 10000; }, error, cipher);
  std::string record;
  read_set_copy(
      file.path(), record,
      [](const char*, size_t size) {
        if (size == 0 || size > CHUNK)
          fuzz_fail("a piece of a catalog's copy has a size that no chunk has");
        return true;
      },
      error);

  const auto medium = Medium_Reader::open(file.path(), 0, error, cipher);
  if (!medium) {
    if (checked && problems == 0)
      fuzz_fail("a medium that the check has nothing against cannot be opened: " + error);
    return;
  }
  std::vector<unsigned long long> objects;
  medium->walk(
      false,
      [&](const Medium_Finding& finding) {
        if (finding.kind == Medium_Finding::OBJECT)
          objects.push_back(finding.offset);
        return objects.size() < 64;
      },
      error);
  const bool complete = medium->complete(error);
  // The corpus comes first: mending that damages what is whole would keep all mutations at the first checksum.
  static unsigned whole = 0;
  if (checked && problems == 0 && whole < 8) {
    std::string mended(input);
    mend_medium(mended);
    if (++whole; mended != input)
      fuzz_fail("mending a whole medium changes it");
  }
  for (const unsigned long long offset : objects)
    if (!reads(*medium, offset) && checked && problems == 0)
      fuzz_fail("an object that the check has nothing against cannot be read");
  if (checked && problems == 0 && !complete)
    fuzz_fail("a medium that the check has nothing against is not complete");
  // Places that no walk names: a catalog may be wrong.
  const unsigned long long blocks = input.size() / FLB + 1;
  reads(*medium, (input.size() + objects.size()) % blocks * FLB);
  reads(*medium, static_cast<unsigned char>(input.empty() ? 0 : input.back()) % blocks * FLB + FLB / 2);
}
