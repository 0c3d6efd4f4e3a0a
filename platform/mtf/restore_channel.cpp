#include "platform/mtf/restore_channel.h"

#include "sdk/base/time_format.h"
#include "sdk/mtf/file_attributes.h"

#include <algorithm>
#include <cerrno>
#include <limits>

using namespace MTF;

namespace {

/// Of an object too large to be verified whole, read and verified before its target is touched; then its step.
constexpr size_t CHUNK = 1u << 20;
/// What a channel's buffer may keep between two objects.
constexpr size_t KEPT_BUFFER = 256u << 10;

std::string with_reason(const std::string& message, const std::optional<S3_Error>& reason) {
  return message + (reason ? ": " + reason->text() : std::string()) + ".";
}

struct Released_Buffer {
  std::vector<char>& buffer;
  ~Released_Buffer() {
    if (buffer.capacity() > KEPT_BUFFER)
      std::vector<char>().swap(buffer);
  }
};

} // namespace

void Restore_Channel::run() {
  Media_Task task;
  while (shared_.wait_while_paused() && shared_.feed->next(task))
    restore(task);
}

void Restore_Channel::skip(const Media_Task& task, const std::string& message) {
  if (!shared_.cut())
    shared_.account->skipped(task.object.path, message);
}

void Restore_Channel::fail(const Media_Task& task, const std::string& message, int number) {
  if (!shared_.cut())
    shared_.account->failed(task.object.path, number != 0 ? number : EIO, message);
}

/// What the service said against the last request that this thread had it asked; the channel's callback and the
/// converter only tell that something failed.
std::optional<S3_Error> Restore_Channel::take_failure() {
  return shared_.ledger ? shared_.ledger->take_failure_here() : std::nullopt;
}

void Restore_Channel::restore(const Media_Task& task) {
  const Catalog_Object& object = task.object;
  std::string path = "/" + object.path;
  if (object.path.find('\0') != std::string::npos)
    return skip(task, "A key with a NUL byte is not supported.");
  if (object.size > std::numeric_limits<size_t>::max())
    return skip(task, "The object is larger than this platform can write.");
  take_failure();
  if (!shared_.converter.null()) {
    const Error_Code policy = shared_.converter->convert(path, to_time_t(object.mtime), false);
    // A policy that cannot see the target takes it for missing. What nobody could see is not ours to replace.
    if (const std::optional<S3_Error> unseen = take_failure())
      return fail(task, "The target was left as it is, for it could not be looked at: " + unseen->text() + ".",
                  unseen->number());
    if (policy == E_SKIP)
      return shared_.account->unchanged();
    if (policy != E_OK)
      return fail(task, "The object's target path could not be made.");
  }

  Stored_Reading reading;
  if (!reading.open(task))
    return fail(task, "What is stored of the object is damaged: " + reading.error() + ".");
  const bool whole = object.size <= shared_.memory.bytes();
  const size_t first = whole ? static_cast<size_t>(object.size) : std::min(CHUNK, shared_.memory.bytes());
  const Memory_Shares::Share share(shared_.memory, first);
  const Released_Buffer released{buffer_};
  if (!shared_.wait_while_paused())
    return;
  // One byte more, so that the read which finds the end of a whole object, or of an empty one, has a place.
  buffer_.resize(first + 1);
  size_t filled = 0;
  Read_Outcome outcome = Read_Outcome::MORE;
  while (outcome == Read_Outcome::MORE && (whole || filled < first)) {
    size_t got = 0;
    outcome = reading.read(buffer_.data() + filled, first - filled + (whole ? 1 : 0), got);
    filled += got;
  }
  shared_.account->read(reading.stored());
  if (outcome == Read_Outcome::DAMAGED || outcome == Read_Outcome::FAILED)
    return fail(task, "What is stored of the object is damaged: " + reading.error() + ".");
  const unsigned long long before = reading.stored();
  std::vector<std::string> not_given;
  // What was given could not be checked any more: a restore that does that shall write the object again.
  if (replace(task, path, reading, filled, outcome, not_given) && (not_given.empty() || !shared_.cut())) {
    shared_.account->saved(object.size, object.size);
    if (!not_given.empty())
      shared_.account->incomplete(object.path, "The object is restored without all that belongs to it", not_given);
  }
  shared_.account->read(reading.stored() - before);
}

/// Puts an object whose first `first` bytes are in the buffer in place of what is there.
bool Restore_Channel::replace(const Media_Task& task, const std::string& path, Stored_Reading& reading, size_t first,
                              Read_Outcome outcome, std::vector<std::string>& not_given) {
  if (!callback_->unlink(path.c_str())) {
    skip(task, with_reason("The existing target could not be removed", take_failure()));
    return false;
  }
  struct Passage {
    explicit Passage(Write_Gate& g) : gate(g) { gate.enter(); }
    ~Passage() { gate.leave(); }
    Write_Gate& gate;
  };
  const Passage passage(shared_.writing);
  return write(task, path, reading, first, outcome, not_given);
}

bool Restore_Channel::write(const Media_Task& task, const std::string& path, Stored_Reading& reading, size_t first,
                            Read_Outcome outcome, std::vector<std::string>& not_given) {
  const Catalog_Object& object = task.object;
  // Every way out but the last lets go of an open writer, which gives the target up.
  IFile_Writer_var writer = callback_->make_file_writer();
  if (writer.null()) {
    fail(task, "No writer could be made for the object.");
    return false;
  }
  auto* const sink = dynamic_cast<IFile_Attributes_Sink*>(writer.get());
  if (sink != nullptr) {
    sink->attributes(reading.attributes());
    if (!reading.attributes_problem().empty())
      not_given.push_back(reading.attributes_problem());
  }
  Error_Code result = writer->open(path.c_str(), object.size);
  std::string_view bytes(buffer_.data(), first);
  unsigned long long written = 0;
  while (result == E_OK) {
    if (!bytes.empty())
      result = writer->write(bytes.data(), bytes.size());
    written += bytes.size();
    if (result != E_OK || outcome == Read_Outcome::END)
      break;
    if (!shared_.wait_while_paused())
      return false;
    outcome = reading.next(bytes);
    if (outcome == Read_Outcome::DAMAGED || outcome == Read_Outcome::FAILED) {
      fail(task, "What is stored of the object is damaged after " + std::to_string(written) +
                     " bytes: " + reading.error() + ".");
      return false;
    }
  }
  if (result == E_OK) {
    Callback_Stat stat;
    stat.mode = 0100644;
    stat.nlink = 1;
    stat.size = object.size;
    stat.atime = stat.mtime = stat.ctime = object.mtime;
    result = writer->set_stat(stat);
  }
  if (result == E_OK)
    result = writer->sync();
  if (result == E_OK)
    result = writer->close();
  if (result == E_OK) {
    if (sink != nullptr)
      not_given.insert(not_given.end(), sink->refused().begin(), sink->refused().end());
    return true;
  }
  const std::optional<S3_Error> reason = take_failure();
  const std::string message = with_reason("The object could not be written to its target", reason);
  if (result == E_SKIP)
    skip(task, message);
  else
    fail(task, message, reason ? reason->number() : 0);
  return false;
}
