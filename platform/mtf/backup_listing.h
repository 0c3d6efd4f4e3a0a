#pragma once

#include "platform/mtf/backup_base.h"
#include "platform/mtf/backup_queue.h"
#include "platform/mtf/partial_sets.h"
#include "platform/mtf/run_account.h"
#include "platform/mtf/source_watch.h"

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

namespace MTF {
class IFile_Attributes_Update;
}

/// The event handler that a source lister gets: passes on what the lister says, takes it into the account, and answers
/// that the run is being cancelled as soon as it has to end for whatever reason.
class Listing_Events : public MTF::Event_Handler {
public:
  Listing_Events(MTF::Event_Handler_var handler, Run_Account& account, Catalog_Writer& catalog,
                 const std::list<std::string>& sources);

  void stop() { stopping_ = true; }
  /// A block was refused, which the lister counts as a skipped object: it is none, and will be told as not reached.
  void refused() { ++refused_; }
  /// Hands the lister's own counts on. Once, after it has ended.
  void settle();
  /// Objects that were asked for by name and that no answer has told anything about, neither that they are there nor
  /// that they are not. Once the lister has ended.
  unsigned long long unanswered() const { return unanswered_; }
  /// Objects that could not be looked at or handed out, which says nothing about whether they are there; "bucket/key".
  /// Once the lister has ended.
  const std::vector<std::string>& unseen_objects() const { return unseen_objects_; }
  /// There were more of them than are kept.
  bool more_unseen() const { return more_unseen_; }

  int notify_event(unsigned code, const json_spirit::Object& options) override;
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override;
  bool canceling() override;
  bool pausing() override;

private:
  MTF::Event_Handler_var handler_;
  Run_Account& account_;
  Catalog_Writer& catalog_;
  std::atomic<bool> stopping_{false};
  std::atomic<unsigned long long> refused_{0};
  std::atomic<unsigned long long> cut_{0}; ///< objects that could not be looked at because the run is being stopped
  std::atomic<unsigned long long> unanswered_{0};
  std::unordered_set<std::string> sources_; ///< "bucket/key"
  std::mutex mutex_;                        ///< guards what follows
  std::vector<std::string> unseen_objects_;
  bool more_unseen_ = false;
};

/// What a listing that got to its end did not show although it may be there.
struct Unlisted {
  std::vector<std::string> prefixes; ///< "/bucket/prefix"; "/" for the list of buckets
  std::vector<std::string> objects;  ///< "bucket/key"
  bool anything = false;             ///< keys were lost, and nobody knows which
};

/// Counts what of the objects of `catalog`, the set before, a run of these sources and this filter, which may be null,
/// does not ask for any more. `asked`: how many of them it does. `stopped` ends it. False when it was ended, or with
/// the reason.
bool count_deselected(Catalog_Reader& catalog, const std::list<std::string>& sources, const MTF::IFilter* filter,
                      const std::function<bool()>& stopped, Run_Account::Deselected& counts, unsigned long long& asked,
                      std::string& error);

/// Turns the lister's blocks into objects for the queue and folders for the catalog, and numbers the objects. What the
/// base has unchanged, and what an unfinished run has stored already, goes straight into the catalog. On the lister's
/// thread.
class Backup_Listing {
public:
  /// `base` and `partial` may be null.
  Backup_Listing(Backup_Queue& queue, Catalog_Writer& catalog, Run_Account& account, Backup_Base* base,
                 Partial_Sets* partial, Source_Watch& watch)
      : queue_(queue), catalog_(catalog), account_(account), base_(base), partial_(partial), watch_(watch) {}
  /// Objects whose attributes lack something by its judgement go the way of those to be read, all but their content.
  /// It outlives the listing; null: none does.
  void update_by(MTF::IFile_Attributes_Update* update) { update_ = update; }

  /// False when the block makes no sense, the run is stopped, or the catalog failed.
  bool take(const MTF::Cat_Blk& block);
  /// After the last block: carries over from the base what is `unlisted` and records what is gone below the `sources`,
  /// both as far as it would pass the `filter`, which may be null. Counts what of the base is not asked for any more.
  /// False when a catalog failed.
  bool compare(const Unlisted& unlisted, const std::list<std::string>& sources, const MTF::IFilter* filter);
  /// Ends the last folder, and hands the catalog what is left. False when the catalog failed.
  bool finish();
  /// What was wrong with a refused block; empty when it was not the block.
  const std::string& error() const { return error_; }

private:
  bool enter(const std::string& name);
  bool object(const MTF::Cat_Blk& block);
  void visit(const std::string& name);
  bool carry(Catalog_Object& object);
  bool stored_already(Catalog_Object& object, bool continued);
  bool end_folder();
  bool keep();
  bool hand_over();

  Backup_Queue& queue_;
  Catalog_Writer& catalog_;
  Run_Account& account_;
  Backup_Base* const base_;
  Partial_Sets* const partial_;
  Source_Watch& watch_;
  MTF::IFile_Attributes_Update* update_ = nullptr;
  std::shared_ptr<const std::string> folder_;
  Catalog_Visit visit_; ///< of `folder_`; `first` is 0 while it has no object
  std::string last_name_;
  unsigned long long ordinal_ = 0;
  std::vector<Catalog_Object> known_; ///< the first `known_count_` are for the catalog, the next is in the making
  size_t known_count_ = 0;
  std::string error_;
};
