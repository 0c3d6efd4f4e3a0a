#include "platform/mtf/medium_salvage.h"

#include "platform/mtf/medium_walker.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

using namespace MTF_Format;

namespace {

/// Puts filemark, end of set and filemark behind the last whole block.
bool end_set(const std::string& path, const Medium_Set& set, const Set_Cipher_ptr& cipher,
             const Medium_Walker::Data_End& end, unsigned long long& size, std::string& error) {
  std::vector<uint64_t> filemarks{1};
  std::string bytes, block;
  const uint64_t place = end.offset / FLB;
  make_filemark(bytes, place, filemarks);
  filemarks.push_back(place);
  Medium_Identity identity;
  identity.incremental = set.incremental;
  identity.write_date = set.write_date;
  identity.cipher = cipher;
  make_set_end(block, identity, end.totals, place + 1, static_cast<uint32_t>(end.control_id));
  bytes += block;
  block.clear();
  make_filemark(block, (end.offset + bytes.size()) / FLB, filemarks);
  bytes += block;

  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  size_t done = 0;
  bool good = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(end.offset)) == 0;
  while (good && done < bytes.size()) {
    const ssize_t count = ::pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(end.offset + done));
    if (count > 0)
      done += static_cast<size_t>(count);
    else
      good = count < 0 && errno == EINTR;
  }
  good = good && ::fsync(fd) == 0;
  if (!good)
    error = "cannot end the medium " + path + ": " + std::strerror(errno);
  if (fd >= 0)
    ::close(fd);
  size = end.offset + bytes.size();
  return good;
}

} // namespace

bool salvage_medium(const std::string& path, const Set_Cipher_ptr& cipher,
                    const std::function<bool(const Medium_Finding&)>& object, Salvaged_Medium& medium,
                    std::string& error) {
  medium = Salvaged_Medium();
  if (!read_medium_set(path, medium.set, error))
    return false;
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(path, error, cipher);
    if (!source)
      return false;
    bool taken = true;
    const Medium_Walker::Found found = [&](const Medium_Finding& finding) {
      // Only what is whole spares a request: an object without its attributes is read again.
      if (finding.kind != Medium_Finding::OBJECT || finding.attributes_lost)
        return true;
      ++medium.objects;
      return taken = object(finding);
    };
    Medium_Walker walker(source, true, found);
    if (!walker.walk(error))
      return false;
    if (!taken) {
      error = "what is on " + path + " cannot be kept";
      return false;
    }
    medium.size = source->size();
    const Medium_Walker::Data_End& end = walker.data_end();
    if (end.offset == 0) {
      error = path + " holds no whole block";
      return false;
    }
    return end.finished || end_set(path, medium.set, cipher, end, medium.size, error);
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + path;
    return false;
  }
}
