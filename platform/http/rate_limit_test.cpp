#include "platform/http/rate_limit.h"

#include "sdk/base/clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

/// Time that passes only where it is waited for.
class Waited_Clock : public Clock {
public:
  Waited_Clock() : before_(Clock::instance(this)) {}
  ~Waited_Clock() override { Clock::instance(before_); }
  time_t now() override { return 0; }
  ACE_Time_Value monotonic() override {
    return ACE_Time_Value(static_cast<time_t>(passed / 1000000), static_cast<suseconds_t>(passed % 1000000));
  }
  void sleep(unsigned seconds) override { passed += 1000000ull * seconds; }
  void wait(std::unique_lock<std::mutex>&, std::condition_variable&, const ACE_Time_Value& time) override {
    passed +=
        static_cast<unsigned long long>(time.sec()) * 1000000 + static_cast<unsigned long long>(time.usec()) + late;
  }

  unsigned long long passed = 1000000000; ///< microseconds
  unsigned long long late = 0;            ///< after each wait

private:
  Clock* before_;
};

/// Bytes that users in turn move in ten seconds, each as much at a time as it has in `pieces`.
unsigned long long moved_in_ten_seconds(Waited_Clock& clock, unsigned long long rate,
                                        const std::vector<unsigned long long>& pieces) {
  Rate_Limit limit;
  limit.set(rate);
  unsigned long long all = 0;
  const unsigned long long end = clock.passed + 10000000;
  for (size_t user = 0;; user = (user + 1) % pieces.size()) {
    for (double wait = limit.begin(); wait > 0; wait = limit.begin()) {
      limit.wait(wait);
      if (clock.passed >= end)
        return all;
    }
    limit.end(pieces[user]);
    all += pieces[user];
  }
}

TEST(Rate_Limit, holds_within_a_twentieth_over_ten_seconds_whoever_moves_how_much) {
  Waited_Clock clock;
  for (const unsigned long long rate : {20000ull, 1000000ull, 20000000ull, 1000000000ull}) {
    Rate_Limit limit;
    limit.set(rate);
    const unsigned long long piece = limit.piece();
    for (const std::vector<unsigned long long>& pieces : {std::vector<unsigned long long>{piece},
                                                          {piece, piece / 2, 0, 100, piece},
                                                          std::vector<unsigned long long>(64, piece),
                                                          {piece * 4}}) {
      const double moved = static_cast<double>(moved_in_ten_seconds(clock, rate, pieces));
      EXPECT_NEAR(10.0 * static_cast<double>(rate), moved, 0.5 * static_cast<double>(rate)) << rate;
    }
  }
}

TEST(Rate_Limit, is_reached_although_each_wait_ends_late) {
  Waited_Clock clock;
  clock.late = 50000;
  EXPECT_NEAR(1e7, static_cast<double>(moved_in_ten_seconds(clock, 1000000, {16384})), 5e5);
}

TEST(Rate_Limit, time_that_nobody_used_is_not_saved_up) {
  Waited_Clock clock;
  moved_in_ten_seconds(clock, 1000000, {10000});
  Rate_Limit limit;
  limit.set(1000000);
  EXPECT_EQ(0, limit.begin());
  limit.end(10000);
  clock.sleep(3600);
  unsigned long long at_once = 0;
  while (limit.begin() == 0) {
    limit.end(10000);
    at_once += 10000;
  }
  EXPECT_LE(at_once, 220000u);
}

TEST(Rate_Limit, pieces_are_small_where_the_rate_is) {
  Rate_Limit limit;
  EXPECT_FALSE(limit.on());
  limit.set(1);
  EXPECT_TRUE(limit.on());
  EXPECT_EQ(1024u, limit.piece());
  limit.set(320000);
  EXPECT_EQ(10000u, limit.piece());
  limit.set(1000000000);
  EXPECT_EQ(4u << 20, limit.piece());
}

} // namespace
