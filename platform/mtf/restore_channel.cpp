#include "platform/mtf/restore_channel.h"

#include "sdk/base/time_format.h"
#include "sdk/mtf/file_attributes.h"
#include "sdk/mtf/file_replacement.h"

#include <algorithm>
#include <cerrno>
#include <limits>

using namespace MTF;

namespace {

/// Of an object too large to be verified whole, read and verified before its target is touched.
constexpr size_t CHUNK = 1u << 20;

std::string with_reason(const std::string& message, const std::optional<S3_Error>& reason) {
  return message + (reason ? ": " + reason->text() : std::string()) + ".";
}

/// What the service said against the last request that this thread had it asked; callback and converter only report
/// that something failed.
std::optional<S3_Error> take_failure(const Restore_Shared& shared) {
  return shared.ledger ? shared.ledger->take_failure_here() : std::nullopt;
}

void skip(const Restore_Shared& shared, const Media_Task& task, const std::string& message) {
  if (!shared.cut())
    shared.account->skipped(task.object.path, message);
}

void fail(const Restore_Shared& shared, const Media_Task& task, const std::string& message, int number = 0) {
  if (!shared.cut())
    shared.account->failed(task.object.path, number != 0 ? number : EIO, message);
}

} // namespace

bool Restore_Handover::give(std::unique_ptr<Prepared_Object> object) {
  std::unique_lock<std::mutex> lock(mutex_);
  waiting_.push_back(std::move(object));
  const unsigned long long number = given_++;
  changed_.notify_all();
  changed_.wait(lock, [&] { return stopped_ || taken_ > number; });
  return taken_ > number;
}

void Restore_Handover::leave() {
  const std::lock_guard<std::mutex> guard(mutex_);
  --givers_;
  changed_.notify_all();
}

std::unique_ptr<Prepared_Object> Restore_Handover::take() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return stopped_ || !waiting_.empty() || givers_ == 0; });
  if (stopped_ || waiting_.empty())
    return nullptr;
  std::unique_ptr<Prepared_Object> object = std::move(waiting_.front());
  waiting_.pop_front();
  ++taken_;
  changed_.notify_all();
  return object;
}

void Restore_Handover::stop() {
  const std::lock_guard<std::mutex> guard(mutex_);
  stopped_ = true;
  waiting_.clear();
  changed_.notify_all();
}

void Restore_Reading::run() {
  struct Leaving {
    Restore_Handover& handover;
    ~Leaving() { handover.leave(); }
  };
  const Leaving leaving{shared_.handover};
  Media_Task task;
  while (shared_.wait_while_paused() && shared_.feed->next(task))
    if (std::unique_ptr<Prepared_Object> object = prepare(task))
      if (!shared_.handover.give(std::move(object)))
        return;
}

/// A policy that cannot see the target takes it for missing. What nobody could see is not ours to replace.
bool Restore_Reading::could_look(const Media_Task& task) {
  const std::optional<S3_Error> unseen = take_failure(shared_);
  if (unseen)
    fail(shared_, task, "The target was left as it is, for it could not be looked at: " + unseen->text() + ".",
         unseen->number());
  return !unseen;
}

/// Whether the policy lets the object be written, and where; one that is not has its place in the account then.
bool Restore_Reading::is_wanted(const Media_Task& task, std::string& path) {
  if (shared_.converter.null())
    return true;
  take_failure(shared_);
  const Error_Code policy = shared_.converter->convert(path, to_time_t(task.object.mtime), false);
  if (!could_look(task))
    return false;
  if (policy == E_SKIP)
    shared_.account->unchanged();
  else if (policy != E_OK)
    fail(shared_, task, "The object's target path could not be made.");
  return policy == E_OK;
}

/// Whether the object need not be written, because it is there already or that could not be seen.
bool Restore_Reading::is_there(const Prepared_Object& object) {
  const auto* const comparison =
      shared_.only_different ? dynamic_cast<const IFile_Comparison*>(shared_.converter.get()) : nullptr;
  if (comparison == nullptr)
    return false;
  const bool same = comparison->is_same(object.path.c_str(), object.task.object.size, object.reading.attributes());
  if (!could_look(object.task))
    return true;
  if (same)
    shared_.account->unchanged();
  return same;
}

std::unique_ptr<Prepared_Object> Restore_Reading::prepare(const Media_Task& task) {
  const Catalog_Object& object = task.object;
  std::string path = "/" + object.path;
  if (object.path.find('\0') != std::string::npos) {
    skip(shared_, task, "A key with a NUL byte is not supported.");
    return nullptr;
  }
  if (object.size > std::numeric_limits<size_t>::max()) {
    skip(shared_, task, "The object is larger than this platform can write.");
    return nullptr;
  }
  if (!is_wanted(task, path))
    return nullptr;

  auto prepared = std::make_unique<Prepared_Object>();
  Prepared_Object& p = *prepared;
  p.task = task;
  p.path = std::move(path);
  if (!p.reading.open(p.task)) {
    fail(shared_, task, "What is stored of the object is damaged: " + p.reading.error() + ".");
    return nullptr;
  }
  if (is_there(p))
    return nullptr;
  const bool whole = object.size <= shared_.memory.bytes();
  const size_t first = whole ? static_cast<size_t>(object.size) : std::min(CHUNK, shared_.memory.bytes());
  p.share.emplace(shared_.memory, first);
  if (!shared_.wait_while_paused())
    return nullptr;
  // One byte more, so that the read which finds the end of a whole object, or of an empty one, has a place.
  p.buffer.resize(first + 1);
  while (p.outcome == Read_Outcome::MORE && (whole || p.filled < first)) {
    size_t got = 0;
    p.outcome = p.reading.read(p.buffer.data() + p.filled, first - p.filled + (whole ? 1 : 0), got);
    p.filled += got;
  }
  shared_.account->read(p.reading.stored());
  if (p.outcome == Read_Outcome::DAMAGED || p.outcome == Read_Outcome::FAILED) {
    fail(shared_, task, "What is stored of the object is damaged: " + p.reading.error() + ".");
    return nullptr;
  }
  return prepared;
}

void Restore_Channel::run() {
  while (shared_.wait_while_paused()) {
    const std::unique_ptr<Prepared_Object> object = shared_.handover.take();
    if (!object)
      return;
    const unsigned long long before = object->reading.stored();
    std::vector<std::string> not_given;
    // What was given could not be checked any more: a restore that does that shall write the object again.
    if (write(*object, not_given) && (not_given.empty() || !shared_.cut())) {
      const Catalog_Object& saved = object->task.object;
      shared_.account->saved(saved.size, saved.size);
      if (!not_given.empty())
        shared_.account->incomplete(saved.path, "The object is restored without all that belongs to it", not_given);
    }
    shared_.account->read(object->reading.stored() - before);
  }
}

/// Has what is at the target removed where the writer cannot replace it by itself.
bool Restore_Channel::clear_the_way(const Prepared_Object& object, const IFile_Writer& writer) {
  const auto* const replacement = dynamic_cast<const IFile_Replacement*>(&writer);
  if ((replacement != nullptr && replacement->replaces_at_close()) || callback_->unlink(object.path.c_str()))
    return true;
  skip(shared_, object.task, with_reason("The existing target could not be removed", take_failure(shared_)));
  return false;
}

/// Puts an object whose first bytes are in its buffer in place of what is there.
bool Restore_Channel::write(Prepared_Object& object, std::vector<std::string>& not_given) {
  const Catalog_Object& stored = object.task.object;
  take_failure(shared_);
  // Every way out but the last lets go of an open writer, which gives the target up.
  IFile_Writer_var writer = callback_->make_file_writer();
  if (writer.null()) {
    fail(shared_, object.task, "No writer could be made for the object.");
    return false;
  }
  if (!clear_the_way(object, *writer))
    return false;
  auto* const sink = dynamic_cast<IFile_Attributes_Sink*>(writer.get());
  if (sink != nullptr) {
    sink->attributes(object.reading.attributes());
    if (!object.reading.attributes_problem().empty())
      not_given.push_back(object.reading.attributes_problem());
  }
  Error_Code result = writer->open(object.path.c_str(), stored.size);
  std::string_view bytes(object.buffer.data(), object.filled);
  unsigned long long written = 0;
  while (result == E_OK) {
    if (!bytes.empty())
      result = writer->write(bytes.data(), bytes.size());
    written += bytes.size();
    if (result != E_OK || object.outcome == Read_Outcome::END)
      break;
    if (!shared_.wait_while_paused())
      return false;
    object.outcome = object.reading.next(bytes);
    if (object.outcome == Read_Outcome::DAMAGED || object.outcome == Read_Outcome::FAILED) {
      fail(shared_, object.task,
           "What is stored of the object is damaged after " + std::to_string(written) +
               " bytes: " + object.reading.error() + ".");
      return false;
    }
  }
  if (result == E_OK) {
    Callback_Stat stat;
    stat.mode = 0100644;
    stat.nlink = 1;
    stat.size = stored.size;
    stat.atime = stat.mtime = stat.ctime = stored.mtime;
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
  const std::optional<S3_Error> reason = take_failure(shared_);
  const std::string message = with_reason("The object could not be written to its target", reason);
  if (result == E_SKIP)
    skip(shared_, object.task, message);
  else
    fail(shared_, object.task, message, reason ? reason->number() : 0);
  return false;
}
