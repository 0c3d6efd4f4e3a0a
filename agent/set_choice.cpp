#include "agent/set_choice.h"

#include "agent/context.h"
#include "platform/pool/set_order.h"
#include "sdk/base/time_format.h"

#include <algorithm>
#include <cstdlib>
#include <map>

namespace {

const std::string LATEST = "latest";
/// More are not read in an error message.
constexpr size_t MOST_NAMED = 10;

/// Reads digits and separators from the front of a text.
class Front {
public:
  explicit Front(const std::string& text) : text_(text) {}

  bool number(size_t digits, int& value) {
    if (text_.size() - at_ < digits)
      return false;
    value = 0;
    for (size_t i = 0; i < digits; ++i) {
      const char c = text_[at_ + i];
      if (c < '0' || c > '9')
        return false;
      value = value * 10 + (c - '0');
    }
    at_ += digits;
    return true;
  }
  bool one_of(const char* characters, char* found = nullptr) {
    if (ended() || std::string(characters).find(text_[at_]) == std::string::npos)
      return false;
    if (found != nullptr)
      *found = text_[at_];
    ++at_;
    return true;
  }
  bool text(const std::string& wanted) {
    if (text_.compare(at_, wanted.size(), wanted) != 0)
      return false;
    at_ += wanted.size();
    return true;
  }
  void spaces() {
    while (one_of(" "))
      ;
  }
  char peek() const { return ended() ? '\0' : text_[at_]; }
  bool ended() const { return at_ == text_.size(); }

private:
  const std::string& text_;
  size_t at_ = 0;
};

/// Seconds east of UTC; empty where no zone stands there. False for one that makes no sense.
bool read_zone(Front& front, std::optional<int>& east) {
  front.spaces();
  if (front.ended())
    return true;
  char sign = '+';
  if (front.text("Z") || front.text("z") || front.text("UTC") || front.text("GMT")) {
    east = 0;
    return front.ended();
  }
  int hours = 0, minutes = 0;
  if (!front.one_of("+-", &sign) || !front.number(2, hours))
    return false;
  if (!front.ended()) {
    front.one_of(":");
    if (!front.number(2, minutes))
      return false;
  }
  if (hours > 14 || minutes > 59)
    return false;
  east = (sign == '-' ? -1 : 1) * (hours * 3600 + minutes * 60);
  return front.ended();
}

std::string utc_text(time_t moment) {
  std::tm parts = {};
  gmtime_r(&moment, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

/// What a selection is called on the command line: "latest:" takes it.
std::string called(const Set& set) {
  return set.minor_resource_name.empty() ? set.minor_resource_id : set.minor_resource_name;
}

} // namespace

bool parse_moment(const std::string& text, time_t& moment) {
  Front front(text);
  int year = 0, month = 0, day = 0, hour = 23, minute = 59, second = 59;
  if (!front.number(4, year) || !front.one_of("-") || !front.number(2, month) || !front.one_of("-") ||
      !front.number(2, day))
    return false;
  // A blank may stand before the time as well as before the zone.
  const bool blank = front.one_of("Tt ");
  if (blank)
    front.spaces();
  if (blank && front.peek() >= '0' && front.peek() <= '9') {
    if (!front.number(2, hour) || !front.one_of(":") || !front.number(2, minute))
      return false;
    if (front.one_of(":")) {
      if (!front.number(2, second))
        return false;
      int digit = 0;
      if (front.one_of(".,")) {
        if (!front.number(1, digit))
          return false;
        while (front.number(1, digit))
          ;
      }
    }
  }
  std::optional<int> east;
  if (!read_zone(front, east) || month < 1 || month > 12 || hour > 23 || minute > 59 || second > 59)
    return false;
  std::tm parts = {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  std::tm same = parts;
  // A day that the month does not have is moved to the next one.
  if (timegm(&same) == -1 || same.tm_mday != day)
    return false;
  moment = east ? timegm(&parts) - *east : mktime(&parts);
  return true;
}

bool names_latest(const std::string& id) {
  return id == LATEST || id.compare(0, LATEST.size() + 1, LATEST + ":") == 0;
}

Set latest_set(Context& context, const std::string& id, const std::optional<time_t>& until) {
  const std::string name = id.size() > LATEST.size() ? id.substr(LATEST.size() + 1) : std::string();
  context.reconcile();
  std::vector<Set> sets;
  std::vector<Account> accounts;
  std::string error;
  if (!context.store().sets(std::string(), std::string(), std::string(), false, sets, error) ||
      !context.store().accounts(accounts, error))
    throw Command_Error(error);
  const auto wanted = [&](const Set& set) {
    return name.empty() || set.minor_resource_id == name || set.minor_resource_name == name ||
           std::any_of(accounts.begin(), accounts.end(), [&](const Account& account) {
             return account.uuid == set.account_uuid && (account.name == name || account.uuid == name);
           });
  };
  const std::string limit = until ? utc_text(*until) : std::string();
  std::map<std::string, std::vector<const Set*>> places; // by selection and pool
  size_t known = 0, incomplete = 0;
  for (const Set& set : sets)
    if (wanted(set))
      places[set.minor_resource_id + " " + set.pool_uuid].push_back(&set);
  std::map<std::string, const Set*> newest;
  for (const auto& [place, there] : places) {
    // Which one is the newest is told by chain and numbers: a clock that was wrong once does not make its set that.
    std::vector<Set_In_Order> all;
    for (const Set* set : there)
      all.push_back({set->uuid, set->bases, set->seq, set->start_time});
    const std::vector<size_t> order = order_of_sets(all);
    known += order.size();
    for (auto one = order.rbegin(); one != order.rend() && newest.count(place) == 0; ++one) {
      const Set* const set = there[*one];
      if (until && set->end_time > limit)
        continue;
      if (set->missing == 0ull)
        newest[place] = set;
      else
        ++incomplete;
    }
  }
  const std::string moment = until ? " at or before " + limit + " UTC" : std::string();
  if (newest.empty())
    throw Command_Error(
        "there is no whole set" + (name.empty() ? std::string() : " of '" + name + "'") + moment +
        (incomplete != 0 ? ": " + std::to_string(incomplete) + " are there that miss objects or may miss some" : "") +
        (known == 0 ? "" : " ('obs-agent sets' lists what there is)"));
  if (newest.size() == 1)
    return *newest.begin()->second;
  std::string names;
  size_t shown = 0;
  for (const auto& [key, set] : newest)
    if (shown++ < MOST_NAMED)
      names += (names.empty() ? "" : ", ") + set->uuid + " of '" + called(*set) + "'";
  if (shown > MOST_NAMED)
    names += " and " + std::to_string(shown - MOST_NAMED) + " more";
  throw Command_Error("'" + id + "' may mean sets of " + std::to_string(newest.size()) + " selections" + moment +
                      ": name the set, or the selection as latest:NAME (" + names + ")");
}
