#include "fuzz/fuzz_cipher.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/medium_bytes.h"
#include "platform/mtf/medium_salvage.h"

#include <sys/stat.h>

// A medium that a run has left behind. What is made of it ends as a finished medium does, and doing it again comes to
// the same.

namespace {

unsigned long long size_of(const std::string& path) {
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<unsigned long long>(status.st_size) : 0;
}

Set_Cipher_ptr cipher_of(const Left_Medium& medium) {
  return medium.set.wrapped_key.empty() ? nullptr : fuzz_cipher();
}

/// All steps; false when nothing can be made of it.
bool salvage(const std::string& path, Left_Medium& medium) {
  std::string error;
  medium.path = path;
  if (look_at_left_medium(medium, error) != Left_Kind::MEDIUM) {
    if (error.empty())
      fuzz_fail("a medium is refused without a reason");
    return false;
  }
  unsigned long long told = 0;
  const unsigned long long size = size_of(path);
  const auto object = [&](const Medium_Finding& finding) {
    ++told;
    return finding.offset < size;
  };
  error.clear();
  if (!read_left_medium(medium, cipher_of(medium), object, error)) {
    if (error.empty())
      fuzz_fail("a medium cannot be read without a reason");
    return false;
  }
  if (told != medium.objects)
    fuzz_fail("the objects of a medium are counted wrong");
  if (size_of(path) != size)
    fuzz_fail("reading a medium changes it");
  if (medium.objects == 0)
    return true;
  if (!cut_left_medium(medium, error) || !end_left_medium(medium, cipher_of(medium), error))
    fuzz_fail("a medium cannot be ended: " + error);
  return true;
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

  Left_Medium first;
  if (!salvage(file.path(), first) || first.objects == 0)
    return;
  if (first.size != size_of(file.path()))
    fuzz_fail("the size of a salvaged medium is not its own");
  std::string error;
  const auto medium = Medium_Reader::open(file.path(), 0, error, cipher_of(first));
  if (!medium || !medium->complete(error))
    fuzz_fail("a salvaged medium does not end as a finished one does: " + error);
  Left_Medium second;
  if (!salvage(file.path(), second))
    fuzz_fail("a salvaged medium cannot be salvaged");
  if (second.objects != first.objects || second.size != first.size)
    fuzz_fail("salvaging a medium again comes to something else");
}
