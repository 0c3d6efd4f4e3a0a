#include "platform/http/slow_watch.h"

#include <gtest/gtest.h>

namespace {

/// Whether a peer that moves `rate` bytes a second is given up within `seconds`, which are looked at in quarters.
bool given_up(Slow_Watch watch, double rate, int seconds) {
  double moved = 0;
  for (int quarter = 0; quarter < 4 * seconds; ++quarter) {
    moved += rate / 4;
    if (watch.too_slow(0.25, static_cast<unsigned long long>(moved)))
      return true;
  }
  return false;
}

TEST(Slow_Watch, peer_below_the_floor_is_given_up_after_one_stretch) {
  EXPECT_FALSE(given_up(Slow_Watch(1000, 60), 1, 59));
  EXPECT_TRUE(given_up(Slow_Watch(1000, 60), 1, 60));
  EXPECT_TRUE(given_up(Slow_Watch(1000, 60), 990, 60));
}

TEST(Slow_Watch, peer_above_the_floor_is_waited_for) {
  EXPECT_FALSE(given_up(Slow_Watch(1000, 60), 1010, 3600));
}

TEST(Slow_Watch, what_was_fast_before_does_not_count_for_the_next_stretch) {
  Slow_Watch watch(1000, 60);
  EXPECT_FALSE(watch.too_slow(60, 1000000000));
  EXPECT_TRUE(watch.too_slow(60, 1000000060));
}

TEST(Slow_Watch, restart_begins_a_stretch) {
  Slow_Watch watch(1000, 60);
  EXPECT_FALSE(watch.too_slow(59, 0));
  watch.restart(0);
  EXPECT_FALSE(watch.too_slow(59, 0));
  EXPECT_TRUE(watch.too_slow(1, 0));
}

TEST(Slow_Watch, no_floor_no_limit) {
  EXPECT_FALSE(given_up(Slow_Watch(0, 60), 0.01, 3600));
}

} // namespace
