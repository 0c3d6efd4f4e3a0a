#pragma once

#include "platform/catalog/catalog_writer.h"
#include "platform/s3/ledger.h"
#include "sdk/mtf/event_handler.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// How a run ended, as its account sees it.
enum class Run_End {
  KEPT,    ///< there is what it was to make
  DROPPED, ///< it failed: nothing was saved, whatever was written
  STOPPED  ///< it was cut short, and what it has done so far stays done
};

/// The account of one run: what became of every object that was listed, so that
///
///     listed = saved + unchanged + excluded + skipped + failed
///
/// holds however the run ends. Of a run that was stopped `listed` are the objects that it came to, and those that it
/// did not come to are counted beside the sum. Any thread but for `figures`, which is asked when all other threads have
/// ended.
class Run_Account {
public:
  static constexpr size_t MAX_ERRORS = 1000;

  explicit Run_Account(MTF::Event_Handler_var handler) : handler_(handler) {}

  void handed_out() { ++handed_; }
  void saved(unsigned long long size, unsigned long long stored);
  /// The object was stored by a run that did not end: this set is the first that holds it.
  void continued(unsigned long long size) {
    ++saved_;
    ++continued_;
    saved_bytes_ += size;
  }
  void unchanged() { ++unchanged_; }
  void deleted(unsigned long long count) { deleted_ = count; }
  /// Objects of the set before that the run does not ask for any more, whether they are there or not.
  struct Deselected {
    unsigned long long excluded = 0; ///< by the rules
    unsigned long long outside = 0;  ///< below none of the paths
  };
  void deselected(const Deselected& counts) { deselected_ = counts; }
  const Deselected& deselected() const { return deselected_; }
  void read(unsigned long long bytes) { bytes_read_ += bytes; }
  void skipped(const std::string& path, const std::string& message);
  void failed(const std::string& path, int number, const std::string& message);
  /// An object that counts as saved, but not with all that belongs to it; `missing` has a text for each thing.
  void incomplete(const std::string& path, const std::string& message, const std::vector<std::string>& missing);
  /// An object that counts as saved has tags, and the run asks for none.
  void without_tags() { ++without_tags_; }
  /// One is saved without its access list, which in the set before gave rights to others than the owner.
  void without_access_list() { ++without_access_list_; }
  /// The lister could not hand out one object; it has told the event handler itself.
  void lister_skipped(unsigned long long count) {
    lister_skipped_ += count;
    problems_ += count;
  }
  /// A key that stands for a folder and has data, as it is seen: told to the catalog alone. What the ledger keeps of
  /// them is counted and told when the listing has ended.
  void full_folder(const S3_Ledger::Folder_Object& folder);
  /// Adds one entry of the outcome's "errors" without counting anything or telling anybody.
  void note(const std::string& type, const std::string& path, const json_spirit::Value& number,
            const std::string& message);
  /// The objects that the run is about, where they are known beforehand.
  void selected(unsigned long long count) { listed_ = count; }
  /// Something that was asked for by name and is not there: no object, but a problem.
  void absent(const std::string& path);
  /// A folder that was asked for ("bucket/prefix/") and that nothing lies below.
  void nothing_at(const std::string& path);
  /// There is something below the paths, and the rules leave out all of it.
  void all_excluded();
  /// How often one of these two was said.
  unsigned long long empty_paths() const { return empty_paths_; }
  /// There will be a set whose catalog has so many objects: more than were saved or unchanged, where some that the run
  /// did not see, or could not read, were kept from the set before.
  void set_holds(unsigned long long objects) { set_objects_ = objects; }
  /// Problems are also written there; null: nowhere any more.
  void catalog(Catalog_Writer* catalog) { catalog_ = catalog; }

  unsigned long long saved_objects() const { return saved_; }
  unsigned long long continued_objects() const { return continued_; } ///< among those saved
  unsigned long long unchanged_objects() const { return unchanged_; }
  unsigned long long saved_bytes() const { return saved_bytes_; }
  unsigned long long stored_bytes() const { return stored_; }
  unsigned long long bytes_read() const { return bytes_read_; }
  unsigned long long deleted_objects() const { return deleted_; }
  /// Objects that were listed and are missing in the set, and prefixes that could not be listed.
  unsigned long long problems() const { return problems_; }
  /// What the set lacks of what was to be backed up: `problems`, each lost object counted. Once a whole listing has
  /// ended.
  unsigned long long missing() const { return problems_ + (lost_ != 0 ? lost_ - 1 : 0); }

  /// What the engine knows of a listing that has ended, beside what was handed out.
  struct Listing_End {
    bool whole = false;                ///< it got to its end: what was not handed out by now never will be
    unsigned long long excluded = 0;   ///< objects that the filter left out
    unsigned long long unanswered = 0; ///< objects asked for by name without an answer, which no listing has counted
  };
  /// Takes over what the S3 layer saw that never reached the engine: folder objects and prefixes that could not be
  /// listed. Compares its count with what was handed out, and names the difference. Once; `ledger` may be null.
  void listing_ended(const S3_Ledger* ledger, const Listing_End& end);
  /// Objects that the listing showed, whatever becomes of them. Once it has ended.
  unsigned long long shown_objects() const { return std::max(known(), listed_) - empty_folders_; }
  /// Those of them that the filter did not leave out.
  unsigned long long selected_objects() const { return shown_objects() - excluded_; }
  /// Objects that the S3 layer listed and that came out nowhere. Once a whole listing has ended.
  unsigned long long lost_objects() const { return lost_; }
  /// Closes the account. `ledger` may be null. What a listing that was cut short showed and did not hand out was not
  /// reached, which counts as skipped unless the run was stopped.
  json_spirit::Object figures(const S3_Ledger* ledger, Run_End end, double seconds);

private:
  unsigned long long known() const;
  void tell(const char* type, const std::string& path, const json_spirit::Value& number, const std::string& message);
  void problem(Catalog_Problem::Kind kind, const char* type, const std::string& path, int number,
               const std::string& message);
  void record(Catalog_Problem::Kind kind, const std::string& path, int number, const std::string& message);
  void count(Catalog_Problem::Kind kind, const char* type, const std::string& path, int number,
             const std::string& message);

  MTF::Event_Handler_var handler_;
  std::atomic<Catalog_Writer*> catalog_{nullptr};
  std::atomic<unsigned long long> handed_{0};
  std::atomic<unsigned long long> saved_{0};
  std::atomic<unsigned long long> saved_bytes_{0};
  std::atomic<unsigned long long> stored_{0};
  std::atomic<unsigned long long> continued_{0};
  std::atomic<unsigned long long> unchanged_{0};
  std::atomic<unsigned long long> skipped_{0};
  std::atomic<unsigned long long> failed_{0};
  std::atomic<unsigned long long> lister_skipped_{0};
  std::atomic<unsigned long long> bytes_read_{0};
  std::atomic<unsigned long long> problems_{0};
  std::atomic<unsigned long long> incomplete_{0};
  std::atomic<unsigned long long> without_tags_{0};
  std::atomic<unsigned long long> without_access_list_{0};
  unsigned long long deleted_ = 0; ///< of the base and listed no more
  Deselected deselected_;
  unsigned long long listed_ = 0;   ///< as the S3 layer counted; 0 where it saw nothing
  unsigned long long excluded_ = 0; ///< by the filter
  unsigned long long lost_ = 0;
  unsigned long long empty_paths_ = 0;
  std::optional<unsigned long long> set_objects_;
  bool counted_ = false; ///< `listed_` is the S3 layer's: nothing in here may change it
  unsigned long long empty_folders_ = 0;
  unsigned long long full_folders_ = 0;
  std::mutex mutex_; ///< guards `errors_`
  json_spirit::Array errors_;
};
