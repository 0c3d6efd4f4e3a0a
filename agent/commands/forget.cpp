#include "agent/commands/commands.h"
#include "agent/retention.h"
#include "agent/set_outcome.h"
#include "agent/times.h"

#include "platform/catalog/catalog_sum.h"
#include "platform/catalog/open_catalog.h"
#include "platform/file_backup/set_catalog.h"
#include "platform/mtf/merge.h"
#include "platform/mtf/partial_sets.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/set_guard.h"
#include "platform/pool/set_lock.h"
#include "platform/pool/set_order.h"
#include "sdk/base/clock.h"

#include <CLI/CLI.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>

namespace {

struct Forget_Arguments {
  std::string account;
  std::string pool;
  std::string selection;
  Retention_Rules rules;
  std::string within;
  bool dry_run = false;
  bool trust_clock = false;
};

/// A set in its pool, with what decides about it.
struct Candidate {
  Set_Record record;
  std::vector<std::string> needs;   ///< other sets that its catalog points into
  bool readable = true;             ///< the catalog is
  std::vector<std::string> reasons; ///< why it stays; empty: it goes
  Set_Guard guard;                  ///< held on what goes
};

/// The folder "HOST/RESOURCE" of a set.
std::string place_of(const std::string& uri) {
  return uri.substr(0, uri.rfind('/'));
}

/// All sets of one pool. Whoever points into a set may lie anywhere in it, so all are looked at, whichever are asked
/// about.
class Pool_Forgetter {
public:
  Pool_Forgetter(Context& context, const Pool_Entry& entry, const Forget_Arguments& arguments)
      : context_(context), entry_(entry), arguments_(arguments), pool_(context.open_pool(entry)) {}

  /// Decides about all sets of the pool and, unless it is a dry run, removes what goes. Throws Command_Error when
  /// nothing could be decided. What cannot be removed is told in `problems`.
  void run(const std::string& account_uuid) {
    if (!arguments_.dry_run)
      context_.lock_pool(pool_);
    // One that is brought back may need any other.
    if (const std::vector<std::string> away = sets_taken_away(pool_); !away.empty())
      throw Command_Error("pool '" + entry_.name + "': nothing is forgotten while a set is away: " + away.front());
    std::vector<std::string> groups = matching_places(account_uuid);
    // No backup may begin in these places until it is done: it might point into a set that goes.
    if (!arguments_.dry_run)
      lock(groups);
    // Before the sets are read: a run that ends in between has its set among them.
    for (const std::string& place : groups)
      if (is_busy(place))
        busy_.insert(place);
    if (!arguments_.dry_run)
      end_merges(groups);
    read_sets();
    for (const std::string& place : groups)
      apply_rules(place);
    keep_needed();
    if (check_catalogs())
      keep_needed();
    if (!arguments_.dry_run)
      keep_read();
    if (!arguments_.dry_run)
      announce();
    for (const std::string& place : groups)
      finish(place);
    if (!arguments_.dry_run)
      reclaim(groups);
    std::string error;
    if (!arguments_.dry_run && !settle_removals(pool_, going_, error))
      problems.push_back("pool '" + entry_.name + "': its roll of sets could not be written: " + error +
                         ". Where \"sets\" names what was removed as taken away, \"pool trust\" ends that");
  }

  json_spirit::Array groups;
  Lines text;
  std::vector<std::string> problems;
  unsigned long long kept = 0, removed = 0, freed = 0;

private:
  std::vector<std::string> matching_places(const std::string& account_uuid) {
    std::set<std::string> places;
    for (const Set_Record& record : records())
      if ((account_uuid.empty() || record.host_uuid == account_uuid) &&
          (arguments_.selection.empty() || record.minor_resource_name == arguments_.selection ||
           record.minor_resource_id == arguments_.selection))
        places.insert(place_of(record.uri));
    return std::vector<std::string>(places.begin(), places.end());
  }

  std::vector<Set_Record> records() {
    std::vector<std::string> bad;
    std::vector<Set_Record> found = pool_.sets(std::string(), bad);
    if (!bad.empty())
      throw Command_Error("pool '" + entry_.name +
                          "': nothing is forgotten while the record of a set is in doubt, since its data " +
                          "may lie in others: " + bad.front());
    return found;
  }

  void lock(const std::vector<std::string>& places) {
    for (const std::string& place : places) {
      std::string error;
      locks_.emplace_back();
      if (!pool_.lock_place(place, locks_.back(), error))
        throw Command_Error("pool '" + entry_.name + "': " + error);
    }
  }

  void end_merges(const std::vector<std::string>& places) {
    for (size_t i = 0; i < places.size(); ++i) {
      const std::string& place = places[i];
      std::string error;
      std::vector<std::string> busy;
      if (!finish_merges(pool_, place, busy, error, &locks_[i]))
        problems.push_back("a merge that was cut short cannot be ended: " + error);
      for (const Set_Record& record : pool_.replaced_sets(place))
        replaced_.insert(record.uuid);
    }
  }

  void read_sets() {
    for (Set_Record& record : records()) {
      Candidate one;
      std::string error;
      const auto catalog = open_set_catalog(pool_, record, error);
      one.readable = catalog != nullptr;
      if (catalog)
        for (const Catalog_Set& set : catalog->sets())
          if (set.uuid != record.uuid)
            one.needs.push_back(set.uuid);
      one.record = std::move(record);
      sets_.push_back(std::move(one));
    }
  }

  /// A run that is under way may point into any set of its place.
  bool is_busy(const std::string& place) const {
    const std::string folder = pool_.set_folder(place);
    std::vector<std::string> names;
    read_pool_folder(folder, names);
    for (const std::string& name : names) {
      struct stat status;
      const std::string path = folder + "/" + name;
      if (!find_pool_file(path + "/" + Set_Lock::FILE_NAME, status))
        continue;
      Set_Lock probe;
      std::string error;
      bool busy = false;
      if (!probe.acquire(path, false, error, &busy) && busy)
        return true;
    }
    return false;
  }

  /// What is wrong with the times of these sets; empty where nothing is, or where the operator trusts them.
  std::string wrong_clock(const std::vector<Candidate*>& group) const {
    if (arguments_.trust_clock)
      return std::string();
    std::vector<Set_In_Order> sets;
    for (const Candidate* one : group)
      sets.push_back({one->record.uuid, one->record.bases, one->record.seq, one->record.start_time});
    const std::vector<std::string> wrong = time_problems(sets, Clock::instance().now());
    for (size_t i = 0; i < wrong.size(); ++i)
      if (!wrong[i].empty())
        return "set " + sets[i].uuid + ": " + wrong[i];
    return std::string();
  }

  /// Which sets are the newest is told by chain and numbers: they come in that order.
  void keep_last(std::vector<Retention_Set>& sets) const {
    Retention_Rules rules;
    rules.last = arguments_.rules.last;
    rules.count_incomplete = arguments_.rules.count_incomplete;
    std::vector<Retention_Set> ordered = sets;
    for (size_t i = 0; i < ordered.size(); ++i)
      ordered[i].time = static_cast<long long>(i);
    if (rules.any())
      apply_retention(rules, ordered);
    for (size_t i = 0; i < sets.size(); ++i)
      sets[i].reasons = ordered[i].reasons;
  }

  void keep_by_time(std::vector<Retention_Set>& sets) const {
    Retention_Rules rules = arguments_.rules;
    rules.last = 0;
    std::vector<Retention_Set> timed = sets;
    apply_retention(rules, timed);
    for (size_t i = 0; i < sets.size(); ++i)
      for (const std::string& reason : timed[i].reasons)
        if (std::count(sets[i].reasons.begin(), sets[i].reasons.end(), reason) == 0)
          sets[i].reasons.push_back(reason);
  }

  void apply_rules(const std::string& place) {
    std::vector<Candidate*> group;
    std::vector<Retention_Set> sets;
    for (Candidate& one : sets_)
      if (place_of(one.record.uri) == place) {
        group.push_back(&one);
        Retention_Set set;
        set.uuid = one.record.uuid;
        set.time = set_time(one.record.start_time);
        set.missing = one.record.missing();
        sets.push_back(set);
      }
    const std::string wrong = wrong_clock(group);
    const bool told =
        std::is_sorted(sets.begin(), sets.end(),
                       [](const Retention_Set& one, const Retention_Set& other) { return one.time < other.time; });
    // Where clocks say the same as chain and numbers, all rules go by them.
    const bool clocks = wrong.empty() && told;
    if (clocks)
      apply_retention(arguments_.rules, sets);
    else
      keep_last(sets);
    if (!wrong.empty() && arguments_.rules.by_time()) {
      problems.push_back("the sets at " + pool_.set_folder(place) + " all stay: " + wrong +
                         ", and a rule is to decide by such times; --trust-clock lets it");
      for (Retention_Set& set : sets)
        set.reasons.push_back("a clock was wrong");
    } else if (!clocks && arguments_.rules.by_time()) {
      keep_by_time(sets);
    }
    const bool busy = busy_.count(place) != 0;
    const bool damaged = std::any_of(group.begin(), group.end(), [](const Candidate* one) { return !one->readable; });
    for (size_t i = 0; i < group.size(); ++i) {
      decided_.insert(group[i]->record.uuid);
      group[i]->reasons = sets[i].reasons;
      if (wrong.empty() && sets[i].time < 0)
        group[i]->reasons.push_back("its time cannot be read");
      if (busy)
        group[i]->reasons.push_back("a backup is running");
      // Without it, what it replaces would be sets again.
      for (const std::string& uuid : group[i]->record.replaces)
        if (replaced_.count(uuid) != 0)
          group[i]->reasons.push_back("set " + uuid + ", which it replaces, is being read");
      if (damaged && group[i]->readable)
        group[i]->reasons.push_back("a catalog beside it cannot be read");
      else if (damaged)
        group[i]->reasons.push_back("its catalog cannot be read");
    }
  }

  /// Whether a set may go is said by the catalogs of those that stay, so these must be what they were when they were
  /// written. Beside a damaged one nothing goes. True when there is any.
  bool check_catalogs() {
    std::set<std::string> going, damaged; // places
    for (const Candidate& one : sets_)
      if (one.reasons.empty())
        going.insert(place_of(one.record.uri));
    for (Candidate& one : sets_) {
      std::string error;
      bool none = false;
      if (!one.readable || going.count(place_of(one.record.uri)) == 0)
        continue;
      // It was opened before: only what has no check needs that once more.
      if (check_catalog_sum(pool_.set_folder(one.record.uri), error, &none) &&
          (!none || open_checked_catalog(pool_, one.record, error)))
        continue;
      one.readable = false;
      one.reasons.push_back("its catalog is damaged");
      problems.push_back("set " + one.record.uuid + ": " + error);
      damaged.insert(place_of(one.record.uri));
    }
    for (Candidate& one : sets_)
      if (damaged.count(place_of(one.record.uri)) != 0 && one.readable && decided_.count(one.record.uuid) != 0)
        one.reasons.push_back("a catalog beside it is damaged");
    return !damaged.empty();
  }

  /// A set that stays because another one points into it is a set like any other: what it points into stays as well.
  void keep_needed() {
    for (bool settled = false; !settled;) {
      settled = true;
      for (const Candidate& one : sets_) {
        if ((one.reasons.empty() && decided_.count(one.record.uuid) != 0) || !looked_at_.insert(&one).second)
          continue;
        keep_needed_by(one);
        settled = false;
      }
    }
  }

  void keep_needed_by(const Candidate& one) {
    for (Candidate& other : sets_)
      if (std::count(one.needs.begin(), one.needs.end(), other.record.uuid) != 0) {
        other.reasons.push_back("needed by " + one.record.uuid);
        other.guard.release();
      }
  }

  /// A set that somebody is reading stays, with all that it needs; what goes takes no new readers from here on.
  void keep_read() {
    for (bool settled = false; !settled;) {
      settled = true;
      for (Candidate& one : sets_) {
        std::string error;
        if (!one.reasons.empty() || decided_.count(one.record.uuid) == 0 || one.guard.held() ||
            one.guard.own(pool_.set_folder(one.record.uri), error) == Set_Guard::HELD)
          continue;
        one.reasons.push_back("it is being read");
        keep_needed();
        settled = false;
      }
    }
  }

  /// What goes is taken off the pool's roll, which has to say so before.
  void announce() {
    for (const Candidate& one : sets_)
      if (one.reasons.empty())
        going_.push_back(one.record.uuid);
    std::string error;
    if (!announce_removals(pool_, going_, error))
      throw Command_Error("pool '" + entry_.name + "': nothing is forgotten: " + error);
  }

  /// What unfinished runs left and only removed sets pointed into goes with them.
  void reclaim(const std::vector<std::string>& places) {
    for (const std::string& place : places) {
      std::string error;
      if (!orphans_.empty() && !reclaim_partial_sets(pool_, place, &orphans_, error))
        problems.push_back("what an unfinished run left stays: " + error);
    }
  }

  void finish(const std::string& place) {
    json_spirit::Array stay, go;
    const Candidate* first = nullptr;
    Lines lines;
    // Newest first: should the work be cut short, no set is left whose data were removed before it.
    for (auto one = sets_.rbegin(); one != sets_.rend(); ++one) {
      if (place_of(one->record.uri) != place)
        continue;
      first = &*one;
      json_spirit::Object json;
      json["set"] = one->record.uuid;
      json["time"] = json_time(one->record.start_time);
      json["type"] = one->record.type;
      json["storage_size"] = one->record.backup_set_storage_size;
      add_set_outcome(one->record.missing(), json);
      const std::string line = one->record.uuid + "  " + zoned_time(one->record.start_time) + "  " + one->record.type +
                               "  " + set_outcome_text(one->record.missing());
      // What stays after all keeps what it points into.
      if (one->reasons.empty() && !remove(one->record)) {
        one->reasons.push_back("it could not be removed");
        keep_needed();
      }
      if (!one->reasons.empty()) {
        json_spirit::Array reasons;
        std::string names;
        for (const std::string& reason : one->reasons) {
          reasons.push_back(reason);
          names += (names.empty() ? "" : ", ") + reason;
        }
        json["reasons"] = reasons;
        stay.push_back(json);
        ++kept;
        lines.add("  keep    " + line + "  (" + names + ")");
      } else {
        go.push_back(json);
        ++removed;
        freed += one->record.backup_set_storage_size;
        lines.add((arguments_.dry_run ? "  would remove " : "  removed ") + line);
      }
    }
    if (first == nullptr)
      return;
    json_spirit::Object group;
    group["pool"] = entry_.uuid;
    group["account"] = first->record.host_uuid;
    group["selection"] = first->record.minor_resource_id;
    group["name"] = first->record.minor_resource_name;
    group["kept"] = stay;
    group["removed"] = go;
    groups.push_back(group);
    text.add("pool " + entry_.name + ", " + first->record.minor_resource_name);
    text.append(lines);
  }

  /// The record goes first: from then on the set is none. A row without a set is mended by the next look at the pool.
  bool remove(const Set_Record& record) {
    if (arguments_.dry_run)
      return true;
    std::string error;
    if (!pool_.remove_set(record.uri, error)) {
      problems.push_back("set " + record.uuid + ": " + error);
      return false;
    }
    for (const Candidate& one : sets_)
      if (one.record.uuid == record.uuid)
        orphans_.insert(one.needs.begin(), one.needs.end());
    Set row;
    bool found = false;
    if (!context_.store().find_set(record.uuid, row, found, error) ||
        (found && !context_.store().remove_set(record.uuid, error)))
      problems.push_back("set " + record.uuid + " is removed, but not from the database: " + error);
    return true;
  }

  Context& context_;
  const Pool_Entry entry_;
  const Forget_Arguments& arguments_;
  Pool pool_;
  std::vector<Set_Lock> locks_;          ///< by place
  std::set<std::string> busy_;           ///< places where a run is under way
  std::vector<Candidate> sets_;          ///< oldest first
  std::set<std::string> replaced_;       ///< by merged sets, and not dropped yet
  std::set<std::string> orphans_;        ///< what removed sets pointed into
  std::set<const Candidate*> looked_at_; ///< what those point into stays
  std::vector<std::string> going_;       ///< uuids of the sets that go
  std::set<std::string> decided_;        ///< uuids of the sets that the rules were applied to
};

void forget(Context& context, Forget_Arguments arguments) {
  if (!arguments.within.empty() && !parse_retention_time(arguments.within, arguments.rules.within))
    throw Command_Error("--keep-within '" + arguments.within +
                            "' is no time: give 36h, 30d, 8w, 6m (months), 2y or several in a row",
                        EXIT_USAGE);
  if (!arguments.rules.any())
    throw Command_Error("no rule says what to keep: give --keep-last or another --keep- option", EXIT_USAGE);
  const std::string account = arguments.account.empty() ? std::string() : context.account(arguments.account).uuid;
  if (!arguments.dry_run)
    context.lock_state();
  std::vector<Pool_Entry> pools;
  std::string error;
  if (!arguments.pool.empty())
    pools.push_back(context.pool_entry(arguments.pool));
  else if (!context.store().pools(pools, error))
    throw Command_Error(error);

  json_spirit::Array groups;
  Lines text;
  std::vector<std::string> problems;
  unsigned long long kept = 0, removed = 0, freed = 0;
  for (const Pool_Entry& entry : pools) {
    try {
      Pool_Forgetter pool(context, entry, arguments);
      pool.run(account);
      groups.insert(groups.end(), pool.groups.begin(), pool.groups.end());
      text.append(pool.text);
      problems.insert(problems.end(), pool.problems.begin(), pool.problems.end());
      kept += pool.kept;
      removed += pool.removed;
      freed += pool.freed;
    } catch (const Command_Error& failed) {
      problems.push_back(failed.what());
    }
  }
  if (!arguments.selection.empty() && groups.empty() && problems.empty())
    throw Command_Error("there is no set of a selection '" + arguments.selection + "'");
  json_spirit::Object json;
  json["dry_run"] = arguments.dry_run;
  json["groups"] = groups;
  json["kept"] = kept;
  json["removed"] = removed;
  json["freed"] = freed;
  text.add(std::to_string(kept) + " sets kept, " + std::to_string(removed) +
           (arguments.dry_run ? " would be removed, " : " removed, ") + human_bytes(freed) +
           (arguments.dry_run ? " would be freed" : " freed"));
  context.print(json, text);
  for (const std::string& problem : problems)
    print_error(problem);
  if (!problems.empty())
    context.exit_code = EXIT_FAILED;
}

} // namespace

void add_forget_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Forget_Arguments>();
  Retention_Rules& rules = arguments->rules;
  CLI::App* command = app.add_subcommand("forget", "Remove sets that no rule keeps and that no other set needs");
  command->footer("Rules count whole sets only (\"sets\" shows which are), and the newest whole set always stays.");
  command->add_option("account", arguments->account, "Sets of this account only")->type_name("ACCOUNT");
  command->add_option("--pool", arguments->pool, "Sets in this pool only")->type_name("POOL");
  command->add_option("--name", arguments->selection, "Sets of this selection only")->type_name("SELECTION");
  command->add_option("--keep-last", rules.last, "Keep the newest N sets of each selection")->type_name("N");
  command->add_option("--keep-hourly", rules.hourly, "Keep the newest set of each of the last N hours that have any")
      ->type_name("N");
  command->add_option("--keep-daily", rules.daily, "The same for days")->type_name("N");
  command->add_option("--keep-weekly", rules.weekly, "The same for weeks")->type_name("N");
  command->add_option("--keep-monthly", rules.monthly, "The same for months")->type_name("N");
  command->add_option("--keep-yearly", rules.yearly, "The same for years")->type_name("N");
  command
      ->add_option("--keep-within", arguments->within,
                   "Keep all that are at most so much older than the newest: a number and h, d, w, m (31 days) or "
                   "y (366 days), several in a row add up: 36h, 30d, 1y6m")
      ->type_name("TIME");
  command->add_flag("--count-incomplete", rules.count_incomplete,
                    "Let sets count that are not whole; without it no rule counts them, and they stay while they are "
                    "newer than any whole set");
  command->add_flag("--dry-run", arguments->dry_run,
                    "Remove nothing: list what would be removed and what would be kept, and why");
  command->add_flag("--trust-clock", arguments->trust_clock,
                    "Decide by the times of sets also where a clock was wrong when they were made");
  command->callback([&context, arguments] { forget(context, *arguments); });
}
