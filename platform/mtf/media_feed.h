#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/mtf/medium_reader.h"
#include "platform/pool/pool.h"
#include "platform/pool/set_guard.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// The file name of a channel's medium inside its set's folder.
std::string medium_name(unsigned channel);
/// Why the medium's file cannot be all that was written: it is missing, or has another size. Empty where it may be.
std::string medium_problem(const std::string& path, unsigned long long size);

/// Opens a medium of the set whose record is `record`, a set or a partial one. Null with the reason, also when it is
/// another set's medium.
std::unique_ptr<Medium_Reader> open_set_medium(const Pool& pool, const Set_Record& record, unsigned channel,
                                               std::string& error);

/// An object to be read, and the medium that holds it.
struct Media_Task {
  Catalog_Object object;
  std::shared_ptr<Medium_Reader> medium; ///< null: it cannot be read
  std::string error;                     ///< why
};

/// Hands the objects of a set out to the threads that read them, medium by medium and in the order in which they lie
/// there. One thread runs the feed, any number take from it. Memory does not depend on the number of objects.
class Media_Feed {
public:
  /// All three outlive the feed. The catalog is used by the thread in `run` alone.
  Media_Feed(const Pool& pool, const Set_Record& record, Catalog_Reader& catalog);

  /// Shares the sets that the catalog points into with other readers, so that none of them is removed while the feed
  /// lives. False with the reason when one is just being removed. Sets that are missing are found when they are read.
  bool hold(std::string& error);
  /// Feeds the selected objects; returns when all were taken or the feed was stopped. False with the reason when the
  /// catalog cannot be read.
  bool run(const Catalog_Selection& selection, std::string& error);
  /// The next object; false at the end and once stopped. Any thread.
  bool next(Media_Task& task);
  /// Ends it. Any thread.
  void stop();
  bool stopped() const;
  /// What is wrong with whole sets and media, one text each. When `run` has returned.
  const std::vector<std::string>& findings() const { return findings_; }
  /// Looks whether each medium of the catalog's own set is there and ends as it should, and has `run` do the same with
  /// those of other sets. Not while `run` runs.
  void inspect_media();
  /// Has `run` feed only what `chosen` is true for; asked in its thread. Not while it runs.
  void choose(std::function<bool(const Media_Task&)> chosen) { chosen_ = std::move(chosen); }

private:
  std::shared_ptr<Medium_Reader> open(unsigned set, unsigned channel, std::string& error);
  void inspect(const Medium_Reader& reader, const Set_Record::Medium& medium, const std::string& prefix);
  bool record_of(unsigned set, Set_Record& record, std::string& uri, std::string& error);

  const Pool& pool_;
  const Set_Record& record_;
  Catalog_Reader& catalog_;
  std::vector<Set_Guard> guards_;
  std::vector<std::string> findings_;
  bool inspecting_ = false;
  std::function<bool(const Media_Task&)> chosen_;
  mutable std::mutex mutex_; ///< guards what follows
  std::condition_variable room_;
  std::condition_variable arrived_;
  std::deque<Media_Task> tasks_;
  bool ended_ = false;
  bool stopped_ = false;
};

/// Reads one stored object and holds it to what the catalog says: the path, the size, and in the end the digest. One
/// thread at a time.
class Stored_Reading {
public:
  /// False when the object is not there as the catalog says; `error` then tells.
  bool open(const Media_Task& task);
  /// As Object_Reader's, with the catalog's digest and size checked before END.
  Read_Outcome read(char* buffer, size_t size, size_t& got);
  Read_Outcome next(std::string_view& bytes);
  /// What else belongs to the object: as stored beside it or, where that is damaged or gone, as the catalog has it.
  const MTF::File_Attributes& attributes() const;
  /// Why they are not those stored beside it; empty where they are.
  const std::string& attributes_problem() const { return attributes_problem_; }
  /// What stands on the medium before the content; while the object is open.
  const Object_Head& head() const { return reader_->head(); }
  unsigned long long stored() const { return reader_ ? reader_->stored() : 0; }
  const std::string& error() const { return error_; }

private:
  Read_Outcome judged(Read_Outcome outcome, size_t got);

  const Catalog_Object* object_ = nullptr;
  std::shared_ptr<Medium_Reader> medium_; ///< outlives `reader_`
  std::unique_ptr<Object_Reader> reader_;
  unsigned long long read_ = 0;
  std::string error_;
  std::string attributes_problem_;
};
