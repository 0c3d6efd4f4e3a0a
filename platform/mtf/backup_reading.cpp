#include "platform/mtf/backup_reading.h"

#include "platform/s3/digest.h"

#include <algorithm>
#include <cerrno>

using namespace MTF;

namespace {

/// Requests for one object whose size does not settle.
constexpr unsigned MAX_LOOKS = 4;

} // namespace

Reading_Outcome Object_Reading::fail(int number, const std::string& message) {
  number_ = number;
  message_ = message;
  return Reading_Outcome::FAILED;
}

Reading_Outcome Object_Reading::look(const std::string& path) {
  bytes_ = 0;
  opened_ = true;
  if (reader_->open(("/" + path).c_str()) != 0) {
    close();
    message_ = "The object could not be opened.";
    return Reading_Outcome::SKIPPED;
  }
  File_Blk block;
  Callback_Stat stat;
  unsigned long long size = 0;
  if (!reader_->handle_file_blk(block, size, stat)) {
    close();
    message_ = "The object's size and date could not be had.";
    return Reading_Outcome::SKIPPED;
  }
  size_ = size;
  mtime_ = stat.mtime;
  return Reading_Outcome::DONE;
}

Reading_Outcome Object_Reading::open(const std::string& path, unsigned long long listed_size, long long listed_mtime) {
  if (reader_.null()) {
    return fail(ENOMEM, "No reader could be made for the object.");
  }
  doubtful_ = false;
  Reading_Outcome outcome = look(path);
  for (unsigned looks = 1; outcome == Reading_Outcome::DONE && size_ != listed_size; ++looks) {
    const unsigned long long first = size_;
    close();
    if (looks == MAX_LOOKS) {
      changed_ = true;
      return fail(ESTALE, "The object's size changes from one answer to the next.");
    }
    outcome = look(path);
    if (outcome != Reading_Outcome::DONE || size_ != first)
      continue;
    // Another generation has a date of its own; what has none is no object, but an error under a good status.
    if (mtime_ != listed_mtime && mtime_ != 0) {
      doubtful_ = true;
      break;
    }
    close();
    return fail(EIO, "The service contradicts itself: " + std::to_string(listed_size) + " bytes in the listing, " +
                         std::to_string(first) + " when it is read, under the same date.");
  }
  return outcome;
}

void Object_Reading::attributes(File_Attributes& attributes, std::vector<std::string>& problems) {
  attributes = File_Attributes();
  problems.clear();
  if (auto* const source = dynamic_cast<IFile_Attributes_Source*>(reader_.get()))
    source->attributes(attributes, problems);
}

void Object_Reading::expect_md5(const std::string& digest) {
  expected_md5_ = digest;
  md5_.reset(EVP_MD_CTX_new());
  if (!md5_ || EVP_DigestInit_ex(md5_.get(), EVP_md5(), nullptr) != 1)
    md5_.reset();
}

/// Whether the content is what its ETag stands for, where that was asked. A length that is announced too short, twice
/// running, by a service that has just replaced the object shows in nothing else.
bool Object_Reading::has_expected_md5() {
  if (expected_md5_.empty())
    return true;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  return md5_ && EVP_DigestFinal_ex(md5_.get(), digest, &size) == 1 &&
         s3::to_hex({reinterpret_cast<const char*>(digest), size}) == expected_md5_;
}

void Object_Reading::adopt(unsigned long long size, long long mtime) {
  size_ = size;
  mtime_ = mtime;
  opened_ = true;
}

IFile_Reader_var Object_Reading::let_go() {
  opened_ = false;
  return reader_;
}

void Object_Reading::close() {
  if (opened_ && !reader_.null())
    reader_->close();
  opened_ = false;
}

/// One piece of the body. A reader that stands before the object's end and is no longer open has lost its source; the
/// next read takes it up again.
Object_Reading::Piece Object_Reading::read_piece(char* buffer, size_t size, size_t& used) {
  for (unsigned idle = 0; idle < limits_.idle_reads; ++idle) {
    Buffer piece(buffer, size);
    if (reader_->read(piece) != 0)
      return BROKEN;
    used = std::min(piece.used(), size);
    bytes_ += used;
    if (md5_ && EVP_DigestUpdate(md5_.get(), buffer, used) != 1)
      md5_.reset();
    if (used != 0)
      return SOME;
    if (bytes_ >= size_ || reader_->is_open())
      return END;
  }
  return BROKEN;
}

/// A reader that lost its source before the first byte has opened it anew, and then another generation may have come.
Reading_Outcome Object_Reading::finish() {
  File_Blk block;
  Callback_Stat stat;
  unsigned long long size = 0;
  const bool same =
      reader_->is_open() && reader_->handle_file_blk(block, size, stat) && size == size_ && stat.mtime == mtime_;
  close();
  if (same && !has_expected_md5())
    return fail(EIO, "The service contradicts itself: what it sends as the object's " + std::to_string(size_) +
                         " bytes is not what its ETag stands for, and the listing had another size.");
  if (same)
    return Reading_Outcome::DONE;
  changed_ = true;
  return fail(ESTALE, "The object was replaced while it was read.");
}

Reading_Outcome Object_Reading::read_whole(char* buffer) {
  // The byte too many, where one comes, must have a place of its own.
  return read_through(buffer, static_cast<size_t>(size_) + 1, nullptr);
}

Reading_Outcome Object_Reading::read_through(char* buffer, size_t size,
                                             const std::function<bool(const char*, size_t)>& take) {
  for (;;) {
    const unsigned long long left = size_ - bytes_;
    // Past the end only a source that is still open is asked: a closed one would be opened anew.
    if (left == 0 && !reader_->is_open())
      return finish();
    char* const at = take ? buffer : buffer + bytes_;
    const size_t want = static_cast<size_t>(std::min<unsigned long long>(take ? size : left + 1, left + 1));
    size_t used = 0;
    switch (read_piece(at, want, used)) {
    case BROKEN:
      return fail(EIO, "Reading failed after " + std::to_string(bytes_) + " of " + std::to_string(size_) + " bytes.");
    case END:
      if (bytes_ == size_)
        return finish();
      return fail(EIO, "The object ended after " + std::to_string(bytes_) + " of " + std::to_string(size_) + " bytes.");
    case SOME:
      break;
    }
    if (bytes_ > size_)
      return fail(EIO, "More came than the " + std::to_string(size_) + " bytes announced.");
    if (take && !take(at, used))
      return Reading_Outcome::ABANDONED;
  }
}
