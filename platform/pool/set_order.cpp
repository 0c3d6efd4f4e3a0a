#include "platform/pool/set_order.h"

#include <algorithm>
#include <map>
#include <queue>

namespace {

/// Numbers have 16 bits and go round. Where the sets of a selection are spread over more than half of them, some of
/// them have, and which is the newer one is not theirs to tell.
constexpr unsigned WIDEST = 32767;

std::map<std::string, size_t> places_of(const std::vector<Set_In_Order>& sets) {
  std::map<std::string, size_t> places;
  for (size_t i = 0; i < sets.size(); ++i)
    places.emplace(sets[i].uuid, i);
  return places;
}

/// The number in an order that does not end with the last one, where numbers do not tell by themselves.
unsigned in_turn(unsigned seq, bool numbers) {
  return numbers || seq > WIDEST ? seq : seq + 65536;
}

bool numbers_tell(const std::vector<Set_In_Order>& sets) {
  const auto [least, most] = std::minmax_element(
      sets.begin(), sets.end(), [](const Set_In_Order& a, const Set_In_Order& b) { return a.seq < b.seq; });
  return most->seq - least->seq <= WIDEST;
}

} // namespace

std::vector<size_t> order_of_sets(const std::vector<Set_In_Order>& sets) {
  std::vector<size_t> order;
  if (sets.empty())
    return order;
  const std::map<std::string, size_t> places = places_of(sets);
  const bool numbers = numbers_tell(sets);
  // The first of the queue is the oldest of those whose bases have all been taken.
  const auto newer = [&](size_t a, size_t b) {
    if (numbers && sets[a].seq != sets[b].seq)
      return sets[a].seq > sets[b].seq;
    if (sets[a].start_time != sets[b].start_time)
      return sets[a].start_time > sets[b].start_time;
    // Of one second: the low half of the numbers comes after the high one where they have gone round.
    const unsigned one = in_turn(sets[a].seq, numbers), other = in_turn(sets[b].seq, numbers);
    return one != other ? one > other : a > b;
  };
  std::priority_queue<size_t, std::vector<size_t>, decltype(newer)> ready(newer);
  std::vector<size_t> waits(sets.size(), 0);
  std::vector<std::vector<size_t>> after(sets.size());
  for (size_t i = 0; i < sets.size(); ++i)
    for (const std::string& base : sets[i].bases)
      if (const auto found = places.find(base); found != places.end() && found->second != i) {
        after[found->second].push_back(i);
        ++waits[i];
      }
  std::vector<bool> taken(sets.size(), false);
  for (size_t i = 0; i < sets.size(); ++i)
    if (waits[i] == 0)
      ready.push(i);
  while (order.size() < sets.size()) {
    if (ready.empty()) {
      // Bases that lead back to their own sets: nobody writes such records, but anybody may.
      size_t oldest = sets.size();
      for (size_t i = 0; i < sets.size(); ++i)
        if (!taken[i] && (oldest == sets.size() || newer(oldest, i)))
          oldest = i;
      ready.push(oldest);
    }
    const size_t one = ready.top();
    ready.pop();
    if (taken[one])
      continue;
    taken[one] = true;
    order.push_back(one);
    for (const size_t next : after[one])
      if (waits[next] != 0 && --waits[next] == 0)
        ready.push(next);
  }
  return order;
}

long long set_time(const std::string& text) {
  struct tm parts = {};
  const char* const end = ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  return end != nullptr && *end == '\0' ? static_cast<long long>(::timegm(&parts)) : -1;
}

namespace {

/// Of sets whose time is told by nothing else, that of a full set say, numbers tell whether it can be.
void name_out_of_order(const std::vector<Set_In_Order>& sets, std::vector<std::string>& problems) {
  if (sets.empty() || !numbers_tell(sets))
    return;
  const Set_In_Order* latest = nullptr;
  for (const size_t i : order_of_sets(sets)) {
    if (!problems[i].empty())
      continue;
    const long long time = set_time(sets[i].start_time);
    if (latest != nullptr && set_time(latest->start_time) > time + CLOCK_TOLERANCE)
      problems[i] = "its start time " + sets[i].start_time + " is before that of the set " + latest->uuid + " (" +
                    latest->start_time + "), which has a lower number";
    else if (latest == nullptr || set_time(latest->start_time) < time)
      latest = &sets[i];
  }
}

} // namespace

std::vector<std::string> time_problems(const std::vector<Set_In_Order>& sets, time_t now) {
  const std::map<std::string, size_t> places = places_of(sets);
  std::vector<std::string> problems(sets.size());
  for (size_t i = 0; i < sets.size(); ++i) {
    const long long time = set_time(sets[i].start_time);
    if (time < 0) {
      problems[i] = "its start time '" + sets[i].start_time + "' cannot be read";
      continue;
    }
    if (time > static_cast<long long>(now) + CLOCK_TOLERANCE) {
      problems[i] = "its start time " + sets[i].start_time + " is later than now";
      continue;
    }
    for (const std::string& base : sets[i].bases)
      if (const auto found = places.find(base); found != places.end()) {
        const Set_In_Order& before = sets[found->second];
        if (set_time(before.start_time) > time)
          problems[i] = "its start time " + sets[i].start_time + " is before that of the set " + before.uuid +
                        " that it was compared with (" + before.start_time + ")";
      }
  }
  name_out_of_order(sets, problems);
  return problems;
}
