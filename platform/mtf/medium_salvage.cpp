#include "platform/mtf/medium_salvage.h"

#include "platform/mtf/medium_object.h"
#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

using namespace MTF_Format;

namespace {

/// Filemark, end of set and filemark, as they stand behind the last whole block.
std::string make_end(const Left_Medium& medium, const Set_Cipher_ptr& cipher) {
  std::vector<uint64_t> filemarks{1};
  std::string bytes, block;
  const uint64_t place = medium.end.offset / FLB;
  make_filemark(bytes, place, filemarks);
  filemarks.push_back(place);
  Medium_Identity identity;
  identity.incremental = medium.set.incremental;
  identity.write_date = medium.set.write_date;
  identity.cipher = cipher;
  make_set_end(block, identity, medium.end.totals, place + 1, static_cast<uint32_t>(medium.end.control_id));
  bytes += block;
  block.clear();
  make_filemark(block, (medium.end.offset + bytes.size()) / FLB, filemarks);
  return bytes + block;
}

/// Cuts the file at `offset`, writes `bytes` there, and makes it durable when there are any.
bool replace_tail(const std::string& path, unsigned long long offset, const std::string& bytes, std::string& error) {
  const int fd = open_pool_file(path, O_RDWR);
  size_t done = 0;
  bool good = fd >= 0 && ::ftruncate(fd, static_cast<off_t>(offset)) == 0;
  while (good && done < bytes.size()) {
    const ssize_t count = ::pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
    if (count > 0)
      done += static_cast<size_t>(count);
    else
      good = count < 0 && errno == EINTR;
  }
  good = good && (bytes.empty() || ::fsync(fd) == 0);
  if (!good)
    error = "cannot end the medium " + path + ": " + std::strerror(errno);
  if (fd >= 0)
    ::close(fd);
  return good;
}

/// Reads the whole content at `offset`, where a walk has just found an object. FAILED where it could not be read now.
Read_Outcome check_content(const std::shared_ptr<Medium_Source>& source, unsigned long long offset,
                           std::string& error) {
  Medium_Object reader(source);
  if (!reader.open(offset, error))
    return Read_Outcome::FAILED;
  std::string_view bytes;
  Read_Outcome outcome = Read_Outcome::MORE;
  while (outcome == Read_Outcome::MORE)
    outcome = reader.next(bytes);
  error = reader.error();
  return outcome;
}

} // namespace

Left_Kind look_at_left_medium(Left_Medium& medium, std::string& error) {
  try {
    struct stat status;
    // A link may lead to where nothing is mounted now.
    if (find_pool_file(medium.path, status) && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
      error = medium.path + " is no file, so no medium";
      return Left_Kind::NOTHING;
    }
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(medium.path, error);
    if (!source)
      return Left_Kind::UNREAD;
    if (read_medium_set(*source, medium.set, error))
      return Left_Kind::MEDIUM;
    if (!source->failed())
      return Left_Kind::NOTHING;
    error = "cannot read the medium " + medium.path;
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + medium.path;
  }
  return Left_Kind::UNREAD;
}

bool read_left_medium(Left_Medium& medium, const Set_Cipher_ptr& cipher,
                      const std::function<bool(const Medium_Finding&)>& object, std::string& error) {
  medium.objects = 0;
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(medium.path, error, cipher);
    if (!source)
      return false;
    bool going = true;
    const Medium_Walker::Found found = [&](const Medium_Finding& finding) {
      // Only what is whole spares a request: an object without its attributes is read again.
      if (finding.kind != Medium_Finding::OBJECT || finding.attributes_lost)
        return true;
      const Read_Outcome outcome = check_content(source, finding.offset, error);
      if (outcome == Read_Outcome::DAMAGED)
        return true;
      going = outcome == Read_Outcome::END;
      if (!going)
        return false;
      ++medium.objects;
      going = object(finding);
      if (!going)
        error = "what is on " + medium.path + " cannot be kept";
      return going;
    };
    Medium_Walker walker(source, false, found);
    if (!walker.walk(error) || !going)
      return false;
    if (source->failed()) {
      error = "cannot read the medium " + medium.path + " to its end";
      return false;
    }
    medium.size = source->size();
    medium.end = walker.data_end();
    if (medium.objects == 0 || medium.end.offset != 0)
      return true;
    error = medium.path + " holds no whole block";
    return false;
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + medium.path;
    return false;
  }
}

bool cut_left_medium(const Left_Medium& medium, std::string& error) {
  return medium.end.finished || replace_tail(medium.path, medium.end.offset, std::string(), error);
}

bool end_left_medium(Left_Medium& medium, const Set_Cipher_ptr& cipher, std::string& error) {
  if (medium.end.finished)
    return true;
  const std::string end = make_end(medium, cipher);
  medium.size = medium.end.offset + end.size();
  return replace_tail(medium.path, medium.end.offset, end, error);
}
