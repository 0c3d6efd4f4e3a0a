#include "fuzz/fuzz_target.h"

#include "platform/mtf/media_check.h"
#include "platform/mtf/medium_reader.h"
#include "platform/mtf/object_stream.h"

#include <cstring>
#include <openssl/sha.h>
#include <xxhash.h>

using namespace MTF_Format;

// A medium: the strict check, the dump, the walk, and each object that the walk names. No object may read to its end
// with other bytes than its digest says, and a medium that the check has nothing against must read whole.

namespace {

constexpr unsigned HEAD_SIZE_FIELD = 4;

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

void seal(unsigned char* data, size_t covered) {
  put64(data + covered, XXH3_64bits(data, covered));
}

/// Puts the checks of the streams from `at` on right, those of the block at `block` included.
void mend_streams(std::string& input, size_t block, size_t at) {
  const size_t first = at - block;
  while (at + STREAM_HEADER <= input.size()) {
    unsigned char* header = bytes_at(input, at);
    const uint32_t id = get32(header);
    if (id != STAN && id != SPAD && id != OBSC && id != OBSI && id != OBSN && id != OBSH && id != OBSZ && id != OBSD &&
        id != OBST)
      return;
    put16(header + 20, xor_words(header, 10));
    const uint64_t length = get64(header + 8);
    const size_t data = at + STREAM_HEADER;
    if (length > input.size() - data || id == SPAD)
      return;
    unsigned char* const bytes = header + STREAM_HEADER;
    const size_t size = static_cast<size_t>(length);
    if (id == OBSC && size == CHECK)
      put64(bytes, block_check(bytes_at(input, block), first));
    if (id == OBSH && size >= HEAD_FIXED + CHECK) {
      put32(bytes + HEAD_SIZE_FIELD, static_cast<uint32_t>(size - HEAD_FIXED - CHECK));
      put64(bytes + HEAD_BLOCK_CHECK, block_check(bytes_at(input, block), first));
    }
    if (id == OBSZ && size >= FRAME_HEADER) {
      put64(bytes + 16, XXH3_64bits(bytes + FRAME_HEADER, size - FRAME_HEADER));
      seal(bytes, FRAME_HEADER - CHECK);
    } else if ((id == OBSH || id == OBSD || id == OBST || id == OBSI || id == OBSN) && size > CHECK) {
      seal(bytes, size - CHECK);
    }
    at = data + (size + 3) / 4 * 4;
  }
}

} // namespace

void fuzz_mend(std::string& input) {
  for (size_t block = 0; block + DBLK_HEADER <= input.size(); block += FLB) {
    unsigned char* at = bytes_at(input, block);
    if (!is_dblk_type(get32(at)))
      continue;
    const size_t first = get16(at + 8);
    seal_dblk_header(at);
    if (first >= DBLK_HEADER && first <= FLB && block + first < input.size())
      mend_streams(input, block, block + first);
  }
}

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {"TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB",
                                                 "ESET", "EOTM", "SFMB", "STAN", "SPAD", "OBSC", "OBSI",
                                                 "OBSN", "OBSH", "OBSZ", "OBSD", "OBST"};
  return words;
}

void fuzz_one(std::string_view input) {
  static Fuzz_File file;
  file.fill(input);

  std::string error;
  Media_Figures figures;
  unsigned long long problems = 0;
  const bool checked = check_medium(
      file.path(), [&](const Media_Problem&) { return ++problems < 10000; }, figures, error);
  unsigned long long lines = 0;
  dump_medium(
      file.path(), [&](const std::string&) { return ++lines < 10000; }, error);

  const auto medium = Medium_Reader::open(file.path(), 0, error);
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
