#include "platform/mtf/media_feed.h"

#include "platform/catalog/open_catalog.h"
#include "platform/pool/pool_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

/// Objects that wait to be taken.
constexpr size_t TASK_LIMIT = 256;

} // namespace

std::string medium_name(unsigned channel) {
  char name[32];
  std::snprintf(name, sizeof name, "channel-%04u.mtf", channel);
  return name;
}

std::string medium_problem(const std::string& path, unsigned long long size) {
  struct stat status;
  if (!find_pool_file(path, status))
    return errno == ENOENT ? "it is missing" : "it cannot be looked at: " + pool_file_error(errno);
  if (!S_ISREG(status.st_mode))
    return "it is no regular file";
  if (static_cast<unsigned long long>(status.st_size) == size)
    return std::string();
  return "it has " + std::to_string(status.st_size) + " bytes instead of " + std::to_string(size);
}

std::unique_ptr<Medium_Reader> open_set_medium(const Pool& pool, const Set_Record& record, unsigned channel,
                                               std::string& error) {
  const std::string name = medium_name(channel), path = pool.set_folder(record.uri) + "/" + name;
  unsigned family = 0;
  for (const Set_Record::Medium& medium : record.media)
    if (medium.name == name)
      family = medium.family;
  Set_Cipher_ptr cipher;
  if (!open_set_cipher(pool, record, cipher, error))
    return nullptr;
  std::unique_ptr<Medium_Reader> reader = Medium_Reader::open(path, family, error, cipher);
  if (reader && !reader->set_uuid().empty() && reader->set_uuid() != record.uuid) {
    error =
        "the medium " + path + " belongs to another set (" + reader->set_uuid() + " instead of " + record.uuid + ")";
    reader.reset();
  }
  return reader;
}

Media_Feed::Media_Feed(const Pool& pool, const Set_Record& record, Catalog_Reader& catalog)
    : pool_(pool), record_(record), catalog_(catalog) {}

bool Media_Feed::hold(std::string& error) {
  for (const Catalog_Set& set : catalog_.sets()) {
    Set_Guard guard;
    switch (guard.share(pool_.set_folder(set.index == 0 ? record_.uri : set.uri), error)) {
    case Set_Guard::HELD:
      guards_.push_back(std::move(guard));
      break;
    case Set_Guard::MISSING: {
      if (set.index == 0)
        return false;
      // Unless a merge has just moved its data, that is damage, which is told object by object.
      std::string why;
      const auto now = open_set_catalog(pool_, record_, why);
      if (!now || std::any_of(now->sets().begin(), now->sets().end(),
                              [&](const Catalog_Set& one) { return one.uuid == set.uuid; }))
        break;
      error = "the data of set " + record_.uuid + " have just been moved by a merge: try again";
      return false;
    }
    default:
      return false;
    }
  }
  error.clear();
  return true;
}

bool Media_Feed::record_of(unsigned set, Set_Record& record, std::string& uri, std::string& error) {
  if (set == 0) {
    record = record_;
    uri = record_.uri;
    return true;
  }
  for (const Catalog_Set& one : catalog_.sets()) {
    if (one.index != set)
      continue;
    uri = one.uri;
    std::string why;
    bool missing = false;
    if (!read_stored_record(pool_.set_folder(uri), record, why, &missing))
      error = missing ? "the set " + one.uuid + " (" + uri + ") that holds its data is missing" : why;
    else if (record.uuid != one.uuid)
      error = "in " + uri + " lies another set (" + record.uuid + " instead of " + one.uuid + ")";
    else
      return true;
    return false;
  }
  error = "the catalog names no set " + std::to_string(set);
  return false;
}

std::shared_ptr<Medium_Reader> Media_Feed::open(unsigned set, unsigned channel, std::string& error) {
  Set_Record record;
  std::string uri;
  if (!record_of(set, record, uri, error))
    return nullptr;
  const std::string name = medium_name(channel);
  Set_Record::Medium known;
  for (const Set_Record::Medium& medium : record.media)
    if (medium.name == name)
      known = medium;
  record.uri = uri;
  std::shared_ptr<Medium_Reader> reader = open_set_medium(pool_, record, channel, error);
  if (reader && inspecting_ && set != 0 && !known.name.empty())
    inspect(*reader, known, "set " + record.uuid + ", ");
  return reader;
}

void Media_Feed::inspect(const Medium_Reader& reader, const Set_Record::Medium& medium, const std::string& prefix) {
  std::string error;
  if (reader.size() != medium.size)
    findings_.push_back(prefix + medium.name + ": it has " + std::to_string(reader.size()) + " bytes instead of " +
                        std::to_string(medium.size));
  else if (!reader.complete(error))
    findings_.push_back(prefix + medium.name + ": " + error);
}

void Media_Feed::inspect_media() {
  inspecting_ = true;
  for (const Set_Record::Medium& medium : record_.media) {
    std::string error;
    unsigned channel = 0;
    auto reader =
        std::sscanf(medium.name.c_str(), "channel-%u.mtf", &channel) == 1 && medium_name(channel) == medium.name
            ? open_set_medium(pool_, record_, channel, error)
            : Medium_Reader::open(pool_.set_folder(record_.uri) + "/" + medium.name, medium.family, error);
    if (reader)
      inspect(*reader, medium, std::string());
    else
      findings_.push_back(medium.name + ": " + error);
  }
}

bool Media_Feed::run(const Catalog_Selection& selection, std::string& error) {
  bool first = true;
  unsigned set = 0, channel = 0;
  std::shared_ptr<Medium_Reader> medium;
  std::string why;
  const bool read = catalog_.walk_media(
      selection,
      [&](const Catalog_Object& object) {
        if (first || object.set != set || object.channel != channel) {
          first = false;
          set = object.set;
          channel = object.channel;
          why.clear();
          medium = open(set, channel, why);
          if (!medium && std::find(findings_.begin(), findings_.end(), why) == findings_.end())
            findings_.push_back(why);
        }
        Media_Task task = {object, medium, why};
        if (chosen_ && !chosen_(task))
          return true;
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [this] { return stopped_ || tasks_.size() < TASK_LIMIT; });
        if (stopped_)
          return false;
        tasks_.push_back(std::move(task));
        arrived_.notify_one();
        return true;
      },
      error);
  std::lock_guard<std::mutex> guard(mutex_);
  ended_ = true;
  arrived_.notify_all();
  return read;
}

bool Media_Feed::next(Media_Task& task) {
  std::unique_lock<std::mutex> lock(mutex_);
  arrived_.wait(lock, [this] { return stopped_ || ended_ || !tasks_.empty(); });
  if (stopped_ || tasks_.empty())
    return false;
  task = std::move(tasks_.front());
  tasks_.pop_front();
  room_.notify_one();
  return true;
}

void Media_Feed::stop() {
  std::lock_guard<std::mutex> guard(mutex_);
  stopped_ = true;
  room_.notify_all();
  arrived_.notify_all();
}

bool Media_Feed::stopped() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return stopped_;
}

bool Stored_Reading::open(const Media_Task& task) {
  object_ = &task.object;
  read_ = 0;
  reader_.reset();
  medium_ = task.medium;
  error_ = task.error;
  if (!medium_)
    return false;
  reader_ = medium_->object(object_->offset, error_, object_->stored);
  if (!reader_)
    return false;
  const Object_Head& head = reader_->head();
  if (head.path != object_->path)
    error_ = "another object lies at its place on the medium";
  else if (head.size != object_->size)
    error_ =
        "the medium holds " + std::to_string(head.size) + " bytes of it instead of " + std::to_string(object_->size);
  else {
    // What was asked for later is in the catalog alone.
    const bool later = (object_->flags & catalog::FLAG_ASKED_LATER) != 0;
    attributes_problem_ = later ? std::string() : reader_->attributes_problem();
    if (!later && attributes_problem_.empty() && head.attributes.common.empty() && !object_->attributes.common.empty())
      attributes_problem_ = "its attributes are missing beside it";
    return true;
  }
  reader_.reset();
  return false;
}

const MTF::File_Attributes& Stored_Reading::attributes() const {
  const bool later = (object_->flags & catalog::FLAG_ASKED_LATER) != 0;
  return attributes_problem_.empty() && !later ? reader_->head().attributes : object_->attributes;
}

Read_Outcome Stored_Reading::read(char* buffer, size_t size, size_t& got) {
  got = 0;
  const Read_Outcome outcome = reader_->read(buffer, size, got);
  return judged(outcome, got);
}

Read_Outcome Stored_Reading::next(std::string_view& bytes) {
  const Read_Outcome outcome = reader_->next(bytes);
  return judged(outcome, bytes.size());
}

/// What came of a read that brought `got` bytes, held to the catalog.
Read_Outcome Stored_Reading::judged(Read_Outcome outcome, size_t got) {
  read_ += got;
  if (outcome == Read_Outcome::DAMAGED || outcome == Read_Outcome::FAILED) {
    error_ = reader_->error();
  } else if (read_ > object_->size || (outcome == Read_Outcome::END && read_ != object_->size)) {
    error_ = "its stored length is not that of the catalog";
    outcome = Read_Outcome::DAMAGED;
  } else if (outcome == Read_Outcome::END &&
             std::memcmp(reader_->sha256(), object_->sha256, sizeof object_->sha256) != 0) {
    error_ = "its digest is not that of the catalog";
    outcome = Read_Outcome::DAMAGED;
  }
  return outcome;
}
