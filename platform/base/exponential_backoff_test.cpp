#include "sdk/base/exponential_backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

unsigned draw_nothing(unsigned) {
  return 0;
}
unsigned draw_most(unsigned n) {
  return n - 1;
}

class Backoff : public ::testing::Test {
protected:
  void TearDown() override { set_backoff_random(nullptr); }

  static std::vector<unsigned> take(Exponential_Backoff_Iterator at, unsigned count) {
    std::vector<unsigned> waits;
    for (; at != Exponential_Backoff_Iterator() && waits.size() < count; ++at)
      waits.push_back(*at);
    return waits;
  }
};

typedef std::vector<unsigned> Waits;

TEST_F(Backoff, waits_double_up_to_the_cap) {
  EXPECT_EQ(Waits({1, 2, 4, 8, 10, 10}), take(exponential_backoff(1, UNLIMITED_RETRIES, 10, false), 6));
}

TEST_F(Backoff, sequence_ends_after_the_number_of_retries) {
  EXPECT_EQ(Waits({1, 2, 4}), take(exponential_backoff(1, 3, 10, false), 100));
}

TEST_F(Backoff, no_retries_is_the_end_at_once) {
  EXPECT_TRUE(exponential_backoff(1, 0, 10, false) == Exponential_Backoff_Iterator());
  EXPECT_EQ(0u, *exponential_backoff(1, 0, 10, false));
}

TEST_F(Backoff, cumulation_counts_only_what_was_handed_out) {
  Exponential_Backoff_Iterator at = exponential_backoff(1, 3, 10, false);
  EXPECT_EQ(0u, at.cumulation());
  EXPECT_EQ(1u, *at);
  EXPECT_EQ(1u, *at);
  EXPECT_EQ(0u, at.cumulation());
  ++at;
  EXPECT_EQ(1u, at.cumulation());
  ++at;
  ++at;
  EXPECT_EQ(7u, at.cumulation());
  EXPECT_EQ(0u, *at);
  ++at;
  EXPECT_EQ(7u, at.cumulation());
}

TEST_F(Backoff, jitter_keeps_each_wait_in_the_upper_half_of_its_step) {
  set_backoff_random(draw_nothing);
  EXPECT_EQ(Waits({1, 1, 2, 4, 8, 15, 15}), take(exponential_backoff(1, UNLIMITED_RETRIES, 30, true), 7));
  set_backoff_random(draw_most);
  EXPECT_EQ(Waits({1, 2, 4, 8, 16, 30, 30}), take(exponential_backoff(1, UNLIMITED_RETRIES, 30, true), 7));
}

TEST_F(Backoff, system_randomness_stays_in_bounds_and_is_drawn_once_a_step) {
  Exponential_Backoff_Iterator at = exponential_backoff(1, UNLIMITED_RETRIES, 60, true);
  unsigned step = 1;
  unsigned long long sum = 0;
  for (int i = 0; i < 1000; ++i, ++at) {
    const unsigned wait = *at;
    ASSERT_EQ(wait, *at);
    ASSERT_GE(wait, step - step / 2);
    ASSERT_LE(wait, step);
    ASSERT_EQ(sum, at.cumulation());
    sum += wait;
    step = std::min(step * 2, 60u);
  }
}

TEST_F(Backoff, steps_without_a_cap_do_not_wrap_round) {
  Exponential_Backoff_Iterator at = exponential_backoff(3, UNLIMITED_RETRIES, 0, false);
  unsigned last = 0;
  for (int i = 0; i < 200; ++i, ++at) {
    ASSERT_GE(*at, last);
    last = *at;
  }
  EXPECT_EQ(0xFFFFFFFFu, last);
}

TEST_F(Backoff, two_iterators_are_equal_at_the_same_step_only) {
  Exponential_Backoff_Iterator a = exponential_backoff(1, 5, 10, false);
  Exponential_Backoff_Iterator b = exponential_backoff(1, 5, 10, false);
  EXPECT_TRUE(a == b);
  ++a;
  EXPECT_TRUE(a != b);
  ++b;
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(a != exponential_backoff(2, 5, 10, false));
}

} // namespace
