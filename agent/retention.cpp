#include "agent/retention.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

constexpr long long HOUR = 3600;
constexpr long long DAY = 24 * HOUR;

long long floored(long long time, long long unit) {
  return time / unit - (time % unit < 0 ? 1 : 0);
}

long long hour_of(long long time) {
  return floored(time, HOUR);
}
long long day_of(long long time) {
  return floored(time, DAY);
}
/// The epoch was a Thursday.
long long week_of(long long time) {
  return floored(day_of(time) + 3, 7);
}
long long months_of(long long time, long long per_year) {
  const time_t seconds = static_cast<time_t>(time);
  struct tm parts = {};
  ::gmtime_r(&seconds, &parts);
  return parts.tm_year * per_year + (per_year == 1 ? 0 : parts.tm_mon);
}
long long month_of(long long time) {
  return months_of(time, 12);
}
long long year_of(long long time) {
  return months_of(time, 1);
}

/// Gives `reason` to the newest set of each of the latest `count` periods. `sets` are newest first.
void keep_by_period(unsigned count, const char* reason, long long (*period_of)(long long),
                    const std::vector<Retention_Set*>& sets) {
  bool first = true;
  long long period = 0;
  for (Retention_Set* set : sets) {
    const long long own = period_of(set->time);
    if (!first && own == period)
      continue;
    if (count == 0)
      return;
    --count;
    first = false;
    period = own;
    set->reasons.push_back(reason);
  }
}

bool is_incomplete(const Retention_Set& set) {
  return set.missing.value_or(0) != 0;
}

/// Keeps the newest whole set, and what is newer and not counted. `sets` are newest first.
void keep_whole(const Retention_Rules& rules, const std::vector<Retention_Set*>& sets) {
  const auto whole =
      std::find_if(sets.begin(), sets.end(), [](const Retention_Set* set) { return set->missing == 0ull; });
  if (whole != sets.end() && (*whole)->reasons.empty())
    (*whole)->reasons.push_back("newest whole set");
  if (rules.count_incomplete)
    return;
  for (auto set = sets.begin(); set != whole; ++set)
    if (is_incomplete(**set))
      (*set)->reasons.push_back(whole == sets.end() ? "not whole and no set is"
                                                    : "not whole but newer than any that is");
}

} // namespace

void apply_retention(const Retention_Rules& rules, std::vector<Retention_Set>& sets) {
  std::vector<Retention_Set*> newest_first;
  for (Retention_Set& set : sets) {
    set.reasons.clear();
    if (!rules.any())
      set.reasons.push_back("no rule");
    newest_first.push_back(&set);
  }
  if (!rules.any() || sets.empty())
    return;
  // Of two sets of one second the later one counts as newer.
  std::reverse(newest_first.begin(), newest_first.end());
  std::stable_sort(newest_first.begin(), newest_first.end(),
                   [](const Retention_Set* a, const Retention_Set* b) { return a->time > b->time; });
  std::vector<Retention_Set*> counted;
  for (Retention_Set* set : newest_first)
    if (rules.count_incomplete || !is_incomplete(*set))
      counted.push_back(set);
  for (size_t i = 0; i < counted.size() && i < rules.last; ++i)
    counted[i]->reasons.push_back("last");
  keep_by_period(rules.hourly, "hourly", hour_of, counted);
  keep_by_period(rules.daily, "daily", day_of, counted);
  keep_by_period(rules.weekly, "weekly", week_of, counted);
  keep_by_period(rules.monthly, "monthly", month_of, counted);
  keep_by_period(rules.yearly, "yearly", year_of, counted);
  if (rules.within != 0 && !counted.empty())
    for (Retention_Set* set : newest_first)
      if (counted.front()->time - set->time <= rules.within)
        set->reasons.push_back("within");
  keep_whole(rules, newest_first);
}

bool parse_retention_time(const std::string& text, long long& seconds) {
  constexpr long long MOST = std::numeric_limits<long long>::max() / 4;
  long long sum = 0;
  long long number = -1;
  for (const char c : text) {
    if (c >= '0' && c <= '9') {
      number = std::max(number, 0LL) * 10 + (c - '0');
      if (number > MOST / (366 * DAY))
        return false;
      continue;
    }
    const long long unit = c == 'h'   ? HOUR
                           : c == 'd' ? DAY
                           : c == 'w' ? 7 * DAY
                           : c == 'm' ? 31 * DAY
                           : c == 'y' ? 366 * DAY
                                      : 0;
    if (unit == 0 || number < 0)
      return false;
    sum += number * unit;
    number = -1;
    if (sum > MOST)
      return false;
  }
  if (number >= 0 || sum == 0)
    return false;
  seconds = sum;
  return true;
}
