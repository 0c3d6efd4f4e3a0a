#include "platform/mtf/backup_channel.h"

#include "platform/mtf/engine_log.h"
#include "platform/mtf/known_attributes.h"
#include "platform/s3/error_map.h"
#include "sdk/base/clock.h"
#include "sdk/base/time_format.h"
#include "sdk/mtf/attributes_update.h"
#include "sdk/s3/object_attributes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

using namespace MTF;

namespace {

/// An object that was replaced under its reader is read again from its start this often, then it is changing.
constexpr unsigned MAX_CHANGES = 3;
/// One whose reading failed for another reason.
constexpr unsigned MAX_FAILURES = 1;
/// Seconds between two looks whether the service has come back.
constexpr double SERVICE_CHECK = 0.2;
/// What a reader's buffer may keep between two objects.
constexpr size_t KEPT_BUFFER = 128u << 10;

/// What the ETag says about the content; empty where it says nothing. With a service whose ETags only look like
/// digests, an object which was just replaced is read by the next run.
std::string md5_of(const File_Attributes& attributes) {
  Object_Attributes object;
  std::string error;
  return object.parse(attributes.common, attributes.own, error) ? object.content_md5() : std::string();
}

bool knows_tags_of(const File_Attributes& attributes) {
  Object_Attributes object;
  std::string ignored;
  return object.parse(attributes.common, attributes.own, ignored) && object.tags_known;
}

/// Whether both are the same object under two dates, as a restore onto its own place leaves it: one size, one ETag that
/// stands for the content, and all else that a restore would give it. Checksums that only one of them has are no
/// difference of the object, and neither is that only one of them was asked for its tags and has none.
bool is_same_object(const Catalog_Object& known, unsigned long long size, const File_Attributes& attributes) {
  Object_Attributes before, now;
  std::string error;
  if (known.size != size || !before.parse(known.attributes.common, known.attributes.own, error) ||
      !now.parse(attributes.common, attributes.own, error))
    return false;
  if (now.etag.empty() || now.etag != before.etag || (now.content_md5().empty() && now.part_count() == 0))
    return false;
  for (Object_Attributes* one : {&before, &now}) {
    one->checksums.clear();
    one->checksum_type.clear();
    if (one->tags.empty() && one->tag_count <= 0) {
      one->tags_known = false;
      one->tag_count = -1;
    }
  }
  return before.common_text() == now.common_text() && before.own_text() == now.own_text();
}

} // namespace

Object_Head Backup_Channel::head_of(const Backup_Item& item) const {
  Object_Head head;
  head.path = item.path();
  head.ordinal = item.ordinal;
  head.size = item.size;
  head.mtime = item.mtime;
  head.seq = shared_.seq;
  head.attributes = item.attributes;
  head.flags = item.fresh ? unsigned(OBJECT_FRESH) : 0;
  return head;
}

/// Where the object cannot be had, what the base has of it goes into the set: better an older version than none. Says
/// so, with a space before it.
std::string Backup_Channel::keep_older(Backup_Item& item) {
  if (!item.older || shared_.base == nullptr)
    return std::string();
  Catalog_Object& older = *item.older;
  older.ordinal = item.ordinal;
  older.flags |= catalog::FLAG_OLDER;
  const std::string date = POSIX_Time_To_ISO8601(older.mtime, "%Y-%m-%d %H:%M:%S").str();
  shared_.base->use(older);
  if (!shared_.catalog->add_object(older))
    shared_.fail(E_WRITE_MEDIUM, shared_.catalog->error());
  item.older.reset();
  return " The version of " + date + " is kept.";
}

/// Whether the open object is what the base has under another date: its row then goes into the set with the new date,
/// and its data are not stored again.
bool Backup_Channel::keep_same(Backup_Item& item) {
  if (!item.older || shared_.base == nullptr || !item.not_had.empty() ||
      !is_same_object(*item.older, item.size, item.attributes))
    return false;
  Catalog_Object& known = *item.older;
  known.ordinal = item.ordinal;
  known.mtime = item.mtime;
  if (knows_tags_of(item.attributes) && !knows_tags_of(known.attributes)) {
    known.attributes = item.attributes;
    known.flags |= catalog::FLAG_ASKED_LATER;
  }
  known.flags = (known.flags & catalog::FLAG_ASKED_LATER) | (item.fresh ? catalog::FLAG_FRESH : 0);
  shared_.base->use(known);
  if (shared_.catalog->add_object(known))
    shared_.account->unchanged();
  else
    shared_.fail(E_WRITE_MEDIUM, shared_.catalog->error());
  item.older.reset();
  return true;
}

void Backup_Channel::skip(Backup_Item& item, const std::string& message) {
  if (shared_.cut())
    return;
  shared_.account->skipped(item.path(), message + keep_older(item));
}

void Backup_Channel::fail(Backup_Item& item, int number, const std::string& message) {
  if (shared_.cut())
    return;
  shared_.account->failed(item.path(), number, message + keep_older(item));
}

/// Whether the object can be read here and carried by a medium; if not it is accounted for.
bool Backup_Channel::fits(Backup_Item& item) {
  if (item.size <= shared_.limits.largest_object)
    return true;
  skip(item, item.size > Backup_Limits::LARGEST_ON_MEDIUM ? "The object is larger than a medium can carry."
                                                          : "The object is larger than this platform can read.");
  return false;
}

/// Whether what belongs to the object could not be asked for because the run is being stopped: stored like that, it
/// would be taken over by the next run.
bool Backup_Channel::is_cut_short(const Backup_Item& item) const {
  return !item.not_had.empty() && shared_.cut();
}

/// After a failure that may be the service's and not the object's: waits until it is known whether the service is
/// there. True when it was away and answers again, so that the object can be asked for once more; false when it is
/// there, and once the run is stopped.
bool Backup_Channel::service_is_back(const std::optional<S3_Error>& reason) {
  if (!reason || !shared_.ledger || s3::blames(*reason) == s3::Blame::OBJECT)
    return false;
  return was_away_since(shared_.ledger->service.outages());
}

/// Waits until it is known whether the service is there. True when it is, and was not at some moment since its outages
/// were so many.
bool Backup_Channel::was_away_since(unsigned long long outages) {
  if (!shared_.ledger)
    return false;
  const Service_Watch& service = shared_.ledger->service;
  while (service.failing())
    if (!shared_.queue->wait_while_paused(SERVICE_CHECK))
      return false;
  return service.outages() != outages && !service.gone() && !shared_.queue->stopped();
}

/// After an outcome that is not DONE. Where the object is not to be read again it is accounted for.
bool Backup_Channel::read_again(Backup_Item& item, Reading_Outcome outcome, const Object_Reading& reading,
                                Tries& tries) {
  const std::string path = item.path();
  std::optional<S3_Error> reason;
  if (shared_.ledger)
    reason = shared_.ledger->objects.take_refusal("/" + path);
  std::string message = reading.message();
  if (reason)
    message += " " + reason->text();
  if (service_is_back(reason)) {
    log_again(path);
    return true;
  }
  const bool stopped = shared_.queue->stopped();

  if (outcome == Reading_Outcome::SKIPPED) {
    if (reason && reason->code() == "InvalidObjectState" && shared_.ledger->objects.policy() == Archived_Policy::FAIL)
      fail(item, reason->number(), reason->message());
    else
      skip(item, message);
    return false;
  }
  if (reading.changed() || (reason && reason->number() == ESTALE)) {
    if (tries.changes++ < MAX_CHANGES && !stopped)
      return true;
    skip(item, "The object is changing: it was replaced while it was read, " + std::to_string(tries.changes) +
                   " times. " + message);
    return false;
  }
  if (tries.failures++ < MAX_FAILURES && !stopped && reading.number() != ENOMEM)
    return true;
  fail(item, reading.number(), message);
  return false;
}

void Backup_Channel::take_status(Backup_Item& item, Object_Reading& reading) {
  item.size = reading.size();
  item.mtime = reading.mtime();
  reading.attributes(item.attributes, item.not_had);
  item.md5 = reading.doubtful() ? md5_of(item.attributes) : std::string();
  if (!item.md5.empty())
    reading.expect_md5(item.md5);
  item.fresh = shared_.ledger && shared_.ledger->take_fresh('/' + item.path());
}

void Backup_Channel::read() {
  IFile_Reader_var reader;
  std::vector<char> buffer;
  while (Backup_Item* item = shared_.queue->claim(number_)) {
    if (item->known) {
      ask(*item, reader);
      shared_.queue->settle(number_, *item, Backup_Item::KEPT, 0);
      continue;
    }
    const Reading_Outcome outcome = fetch(*item, reader, buffer);
    if (buffer.capacity() > KEPT_BUFFER)
      std::vector<char>().swap(buffer);
    // ABANDONED: it turned out larger than it was listed and has become the writer's.
    if (outcome == Reading_Outcome::DONE)
      shared_.queue->settle(number_, *item, Backup_Item::READY, item->image.footprint());
    else
      shared_.queue->settle(number_, *item,
                            outcome == Reading_Outcome::ABANDONED ? Backup_Item::STREAM : Backup_Item::DROPPED, 0);
  }
}

/// Brings what belongs to an object up to date whose data are stored already.
void Backup_Channel::ask(Backup_Item& item, IFile_Reader_var& reader) {
  if (reader.null())
    reader = shared_.callback->make_file_reader();
  auto* const update = dynamic_cast<IFile_Attributes_Update*>(reader.get());
  if (update == nullptr) {
    item.not_had.emplace_back("what was asked for (no reader could be made)");
    return;
  }
  File_Attributes attributes;
  for (;;) {
    const unsigned long long outages = shared_.ledger ? shared_.ledger->service.outages() : 0;
    attributes = item.known->attributes;
    item.not_had.clear();
    update->update(("/" + item.path()).c_str(), attributes, item.not_had);
    if (item.not_had.empty() || !was_away_since(outages))
      break;
    log_again(item.path());
  }
  if (attributes.common == item.known->attributes.common && attributes.own == item.known->attributes.own)
    return;
  item.known->attributes = std::move(attributes);
  item.known->flags |= catalog::FLAG_ASKED_LATER;
}

bool Backup_Channel::keep(Backup_Item& item) {
  if (is_cut_short(item))
    return true;
  if (!shared_.catalog->add_object(*item.known)) {
    shared_.fail(E_WRITE_MEDIUM, shared_.catalog->error());
    return false;
  }
  if (item.continued)
    shared_.account->continued(item.known->size);
  else
    shared_.account->unchanged();
  if (!item.not_had.empty())
    shared_.account->incomplete(item.known->path, "The object is kept without all that belongs to it", item.not_had);
  return true;
}

Reading_Outcome Backup_Channel::fetch(Backup_Item& item, IFile_Reader_var& reader, std::vector<char>& buffer) {
  if (!fits(item))
    return Reading_Outcome::SKIPPED;
  const std::string path = item.path();
  Tries tries;
  for (;;) {
    if (reader.null())
      reader = shared_.callback->make_file_reader();
    Object_Reading reading(reader, shared_.limits);
    Reading_Outcome outcome = reading.open(path, item.listed_size, item.listed_mtime);
    if (outcome == Reading_Outcome::DONE) {
      const unsigned long long listed = item.size;
      take_status(item, reading);
      if (is_cut_short(item) || keep_same(item))
        return Reading_Outcome::SKIPPED;
      if (item.size > shared_.limits.small_object ||
          (item.size > listed && !shared_.queue->reserve(item, 2 * static_cast<size_t>(item.size - listed)))) {
        item.reader = reading.let_go();
        reader = IFile_Reader_var();
        return Reading_Outcome::ABANDONED;
      }
      buffer.resize(static_cast<size_t>(item.size) + 1);
      outcome = reading.read_whole(buffer.data());
      shared_.account->read(reading.bytes());
    }
    if (outcome == Reading_Outcome::DONE) {
      std::string error;
      if (item.image.encode(head_of(item), buffer.data(), shared_.codec, error))
        return outcome;
      fail(item, ENOMEM, error);
      return Reading_Outcome::FAILED;
    }
    if (!read_again(item, outcome, reading, tries))
      return outcome;
  }
}

void Backup_Channel::write() {
  std::vector<char> buffer;
  while (std::unique_ptr<Backup_Item> item = shared_.queue->next(number_)) {
    bool going = true;
    if (item->state == Backup_Item::READY)
      going = append(*item);
    else if (item->state == Backup_Item::STREAM)
      going = stream(*item, buffer);
    else if (item->state == Backup_Item::KEPT)
      going = keep(*item);
    shared_.queue->done(number_, std::move(item));
    if (!going)
      return;
  }
  // The first medium waits for the catalog, of which it gets a copy.
  if (!shared_.queue->stopped() && number_ != 0)
    finish();
}

bool Backup_Channel::finish(const Set_Copy* copy) {
  return medium_->finish(copy) || medium_failed();
}

bool Backup_Channel::medium_failed() {
  const std::string& error = medium_->error();
  shared_.fail(E_WRITE_MEDIUM, error.empty() ? "a medium cannot be written" : error);
  return false;
}

bool Backup_Channel::enter_folder(const Backup_Item& item) {
  if (folder_ == item.folder)
    return true;
  folder_ = item.folder;
  std::string path = *item.folder;
  std::replace(path.begin(), path.end(), '/', '\0');
  return medium_->set_directory(path);
}

bool Backup_Channel::append(Backup_Item& item) {
  Stored_Object stored;
  if (!enter_folder(item) || !medium_->append(item.image, stored))
    return medium_failed();
  return record(item, stored);
}

bool Backup_Channel::record(const Backup_Item& item, const Stored_Object& stored) {
  Catalog_Object object;
  object.path = item.path();
  object.ordinal = item.ordinal;
  object.size = item.size;
  object.mtime = item.mtime;
  object.flags = item.fresh ? catalog::FLAG_FRESH : 0;
  object.channel = number_;
  object.offset = stored.offset;
  object.stored = stored.stored;
  std::memcpy(object.sha256, stored.sha256, sizeof object.sha256);
  object.attributes = item.attributes;
  if (!shared_.catalog->add_object(object)) {
    shared_.fail(E_WRITE_MEDIUM, shared_.catalog->error());
    return false;
  }
  shared_.account->saved(item.size, stored.stored);
  if (shared_.ledger && shared_.ledger->take_unasked_tags('/' + object.path))
    shared_.account->without_tags();
  if (item.older && lost_access_list(item.older->attributes, item.attributes))
    shared_.account->without_access_list();
  if (!item.not_had.empty())
    shared_.account->incomplete(object.path, "The object is saved without all that belongs to it", item.not_had);
  return true;
}

bool Backup_Channel::stream(Backup_Item& item, std::vector<char>& buffer) {
  buffer.resize(shared_.limits.stream_buffer);
  if (!fits(item))
    return true;
  const std::string path = item.path();
  IFile_Reader_var reader = item.reader;
  item.reader = IFile_Reader_var();
  bool open = !reader.null();
  Tries tries;
  for (;; open = false) {
    if (reader.null())
      reader = shared_.callback->make_file_reader();
    Object_Reading reading(reader, shared_.limits);
    Reading_Outcome outcome = Reading_Outcome::DONE;
    if (open) {
      reading.adopt(item.size, item.mtime);
      if (!item.md5.empty())
        reading.expect_md5(item.md5);
    } else {
      outcome = reading.open(path, item.listed_size, item.listed_mtime);
      if (outcome == Reading_Outcome::DONE) {
        take_status(item, reading);
        if (is_cut_short(item) || keep_same(item))
          return true;
      }
    }
    if (outcome == Reading_Outcome::DONE && !fits(item))
      return true;
    Stored_Object stored;
    if (outcome == Reading_Outcome::DONE) {
      outcome = stream_once(item, reading, buffer, stored);
      shared_.account->read(reading.bytes());
    }
    if (outcome == Reading_Outcome::DONE)
      return record(item, stored);
    if (outcome == Reading_Outcome::ABANDONED)
      return shared_.queue->stopped() ? false : medium_failed();
    if (!read_again(item, outcome, reading, tries))
      return true;
  }
}

/// ABANDONED when the medium failed or the run was stopped.
Reading_Outcome Backup_Channel::stream_once(Backup_Item& item, Object_Reading& reading, std::vector<char>& buffer,
                                            Stored_Object& stored) {
  if (!enter_folder(item) || !medium_->begin_object(head_of(item), shared_.codec))
    return Reading_Outcome::ABANDONED;
  const Reading_Outcome outcome =
      reading.read_through(buffer.data(), buffer.size(), [this](const char* data, size_t size) {
        return shared_.queue->wait_while_paused() && medium_->write(data, size);
      });
  if (outcome == Reading_Outcome::DONE)
    return medium_->end_object(stored) ? outcome : Reading_Outcome::ABANDONED;
  // A medium that cannot take back what it got is no good any more, whatever the object's own fault was.
  if (medium_->error().empty() && !medium_->cancel_object())
    return Reading_Outcome::ABANDONED;
  return outcome;
}
