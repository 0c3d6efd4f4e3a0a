#include "platform/mtf/restore_channel.h"

#include "platform/mtf/engine_log.h"
#include "platform/s3/error_map.h"
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
/// Seconds between two looks whether the service has come back.
constexpr double SERVICE_CHECK = 0.2;

std::string with_reason(const std::string& message, const std::optional<S3_Error>& reason) {
  return message + (reason ? ": " + reason->text() : std::string()) + ".";
}

/// What the service said against the last request that this thread had it asked; callback and converter only report
/// that something failed.
std::optional<S3_Error> take_failure(const Restore_Shared& shared) {
  return shared.ledger ? shared.ledger->take_failure_here() : std::nullopt;
}

unsigned long long outages_of(const Restore_Shared& shared) {
  return shared.ledger ? shared.ledger->service.outages() : 0;
}

/// After a failure that may be the service's and not the object's: waits until it is known whether the service is
/// there. True when it is, and was not at some moment since its outages were so many: what failed about `path` is worth
/// another try, and the log says so.
bool service_is_back(const Restore_Shared& shared, const std::string& path, const std::optional<S3_Error>& reason,
                     unsigned long long outages) {
  if (!reason || !shared.ledger || s3::blames(*reason) == s3::Blame::OBJECT)
    return false;
  const Service_Watch& service = shared.ledger->service;
  while (service.failing())
    if (!shared.rest(SERVICE_CHECK))
      return false;
  if (service.outages() == outages || service.gone() || shared.cut())
    return false;
  log_again(path);
  return true;
}

void skip(const Restore_Shared& shared, const Media_Task& task, const std::string& message) {
  if (!shared.cut())
    shared.account->skipped(task.object.path, message);
}

void fail(const Restore_Shared& shared, const Media_Task& task, const std::string& message, int number = 0) {
  if (!shared.cut())
    shared.account->failed(task.object.path, number != 0 ? number : EIO, message);
}

bool open_stored(const Restore_Shared& shared, Prepared_Object& p) {
  if (p.reading.open(p.task))
    return true;
  fail(shared, p.task, "What is stored of the object is damaged: " + p.reading.error() + ".");
  return false;
}

/// Reads the open object into its buffer, whole or its beginning.
bool fill(const Restore_Shared& shared, Prepared_Object& p) {
  const size_t first = p.buffer.size() - 1;
  p.filled = 0;
  p.outcome = Read_Outcome::MORE;
  while (p.outcome == Read_Outcome::MORE && (p.whole || p.filled < first)) {
    size_t got = 0;
    p.outcome = p.reading.read(p.buffer.data() + p.filled, first - p.filled + (p.whole ? 1 : 0), got);
    p.filled += got;
  }
  shared.account->read(p.reading.stored());
  if (p.outcome != Read_Outcome::DAMAGED && p.outcome != Read_Outcome::FAILED)
    return true;
  fail(shared, p.task, "What is stored of the object is damaged: " + p.reading.error() + ".");
  return false;
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

/// Has `look` look at the target, `path`. A policy that cannot see it takes it for missing. What nobody could see is
/// not ours to replace.
bool Restore_Reading::could_look(const Media_Task& task, const std::string& path, const std::function<void()>& look) {
  std::optional<S3_Error> unseen;
  unsigned long long outages;
  do {
    outages = outages_of(shared_);
    take_failure(shared_);
    look();
    unseen = take_failure(shared_);
  } while (service_is_back(shared_, path, unseen, outages));
  if (unseen)
    fail(shared_, task, "The target was left as it is, for it could not be looked at: " + unseen->text() + ".",
         unseen->number());
  return !unseen;
}

/// Whether the policy lets the object be written, and where; one that is not has its place in the account then.
bool Restore_Reading::is_wanted(const Media_Task& task, std::string& path) {
  if (shared_.converter.null())
    return true;
  const std::string source = path;
  Error_Code policy = E_OK;
  if (!could_look(task, path, [&] {
        path = source;
        policy = shared_.converter->convert(path, to_time_t(task.object.mtime), false);
      }))
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
  bool same = false;
  if (!could_look(object.task, object.path, [&] {
        same = comparison->is_same(object.path.c_str(), object.task.object.size, object.reading.attributes());
      }))
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
  if (!open_stored(shared_, p) || is_there(p))
    return nullptr;
  p.whole = object.size <= shared_.memory.bytes();
  const size_t first = p.whole ? static_cast<size_t>(object.size) : std::min(CHUNK, shared_.memory.bytes());
  p.share.emplace(shared_.memory, first);
  if (!shared_.wait_while_paused())
    return nullptr;
  // One byte more, so that the read which finds the end of a whole object, or of an empty one, has a place.
  p.buffer.resize(first + 1);
  return fill(shared_, p) ? std::move(prepared) : nullptr;
}

void Restore_Channel::run() {
  while (shared_.wait_while_paused()) {
    const std::unique_ptr<Prepared_Object> object = shared_.handover.take();
    if (!object)
      return;
    put(*object);
  }
}

/// Writes an object, once more where the service was away meanwhile.
void Restore_Channel::put(Prepared_Object& object) {
  for (;;) {
    const unsigned long long before = object.reading.stored(), outages = outages_of(shared_);
    std::vector<std::string> not_given;
    Refusal refusal;
    const Writing result = write(object, not_given, refusal);
    shared_.account->read(object.reading.stored() - before);
    const Catalog_Object& stored = object.task.object;
    // What was given could not be checked any more: a restore that does that shall write the object again.
    if (result == Writing::WRITTEN && (not_given.empty() || !shared_.cut())) {
      shared_.account->saved(stored.size, stored.size);
      if (!not_given.empty())
        shared_.account->incomplete(stored.path, "The object is restored without all that belongs to it", not_given);
    }
    if (result != Writing::REFUSED)
      return;
    if (!service_is_back(shared_, object.path, refusal.reason, outages)) {
      if (refusal.skipped)
        skip(shared_, object.task, refusal.message);
      else
        fail(shared_, object.task, refusal.message, refusal.reason ? refusal.reason->number() : 0);
      return;
    }
    if (!object.whole && !(open_stored(shared_, object) && fill(shared_, object)))
      return;
  }
}

/// Puts an object whose first bytes are in its buffer in place of what is there.
Restore_Channel::Writing Restore_Channel::write(Prepared_Object& object, std::vector<std::string>& not_given,
                                                Refusal& refusal) {
  const Catalog_Object& stored = object.task.object;
  take_failure(shared_);
  // Every way out but the last lets go of an open writer, which gives the target up.
  IFile_Writer_var writer = callback_->make_file_writer();
  if (writer.null()) {
    fail(shared_, object.task, "No writer could be made for the object.");
    return Writing::ACCOUNTED;
  }
  const auto* const replacement = dynamic_cast<const IFile_Replacement*>(writer.get());
  if ((replacement == nullptr || !replacement->replaces_at_close()) && !callback_->unlink(object.path.c_str())) {
    refusal.skipped = true;
    refusal.reason = take_failure(shared_);
    refusal.message = with_reason("The existing target could not be removed", refusal.reason);
    return Writing::REFUSED;
  }
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
      return Writing::ACCOUNTED;
    object.outcome = object.reading.next(bytes);
    if (object.outcome == Read_Outcome::DAMAGED || object.outcome == Read_Outcome::FAILED) {
      fail(shared_, object.task,
           "What is stored of the object is damaged after " + std::to_string(written) +
               " bytes: " + object.reading.error() + ".");
      return Writing::ACCOUNTED;
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
    return Writing::WRITTEN;
  }
  refusal.skipped = result == E_SKIP;
  refusal.reason = take_failure(shared_);
  refusal.message = with_reason("The object could not be written to its target", refusal.reason);
  return Writing::REFUSED;
}
