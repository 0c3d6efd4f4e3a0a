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
  unsigned long long told = 0;
  const auto object = [&](const Medium_Finding& finding) {
    ++told;
    return finding.offset < size_of(file.path());
  };
  Salvaged_Medium first;
  error.clear();
  if (!salvage_medium(file.path(), cipher, object, first, error)) {
    if (error.empty())
      fuzz_fail("a medium is refused without a reason");
    return;
  }
  if (told != first.objects || first.size != size_of(file.path()))
    fuzz_fail("the figures of a salvaged medium are not its own");
  const auto medium = Medium_Reader::open(file.path(), 0, error, cipher);
  if (!medium || !medium->complete(error))
    fuzz_fail("a salvaged medium does not end as a finished one does: " + error);
  Salvaged_Medium second;
  if (!salvage_medium(file.path(), cipher, object, second, error))
    fuzz_fail("a salvaged medium cannot be salvaged: " + error);
  if (second.objects != first.objects || second.size != first.size)
    fuzz_fail("salvaging a medium again comes to something else");
}
