#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

/// What tells the order of the sets of one selection in one pool.
struct Set_In_Order {
  std::string uuid;
  std::vector<std::string> bases; ///< uuids of the sets that it was compared with
  unsigned seq = 0;
  std::string start_time; ///< "%Y-%m-%d %H:%M:%S", UTC
};

/// The places of `sets`, oldest first. A set is newer than what it was compared with; of others the one with the higher
/// number is, as a run takes a number behind all that are there. Only where numbers do not tell it, as they have gone
/// round or are the same, clocks do. A base that is not among the sets, or that leads back to its own set, counts for
/// nothing.
std::vector<size_t> order_of_sets(const std::vector<Set_In_Order>& sets);

/// Seconds by which the clocks of machines may differ before a time counts as wrong.
constexpr long long CLOCK_TOLERANCE = 600;

/// The time of a text as records have it; -1 where it is none.
long long set_time(const std::string& text);
/// What is wrong with the start time of each of the sets at `now`, empty where nothing is: later than now, before that of
/// a set that it was compared with, or before that of one with a lower number.
std::vector<std::string> time_problems(const std::vector<Set_In_Order>& sets, time_t now);
