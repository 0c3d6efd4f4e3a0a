#include "platform/s3/request_pace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <queue>
#include <random>
#include <string>
#include <vector>

namespace {

using s3::Request_Pace;

/// Requests of so many workers at a service that admits so many a second, in made-up time. Who is refused waits a
/// second, then asks again, as the client's own retries do; nothing ever fails for good.
class Simulation {
public:
  static constexpr double UNBOUNDED = 0;

  Simulation(double admitted, double burst, double latency, int workers, double noise = 0, unsigned seed = 1,
             bool paced = true)
      : admitted_(admitted), burst_(burst), latency_(latency), idle_(workers), noise_(noise), random_(seed),
        paced_(paced) {}

  void run(double until) {
    while (now_ < until) {
      double wait = 0;
      while (idle_ > 0 && (wait = paced_ ? pace.wait(now_) : 0) == 0)
        begin();
      double next = until;
      if (!flying_.empty())
        next = std::min(next, flying_.top().ends);
      if (!resting_.empty())
        next = std::min(next, resting_.top());
      if (idle_ > 0 && wait > 0)
        next = std::min(next, now_ + std::max(wait, 1e-6));
      now_ = next;
      while (!resting_.empty() && resting_.top() <= now_) {
        resting_.pop();
        ++idle_;
      }
      while (!flying_.empty() && flying_.top().ends <= now_)
        end();
    }
  }
  void make_noise(double part) { noise_ = part; }
  void admit(double per_second) { admitted_ = per_second; }
  void count_anew() { taken = refused = 0; }

  Request_Pace pace;
  double taken = 0, refused = 0;
  unsigned most = 0;

private:
  struct Flight {
    double ends;
    bool refused;
    unsigned long generation;
    bool operator>(const Flight& other) const { return ends > other.ends; }
  };
  template <typename T>
  using Earliest = std::priority_queue<T, std::vector<T>, std::greater<T>>;

  void begin() {
    const double room = std::max(1.0, admitted_ * burst_);
    tokens_ = std::min(room, tokens_ + (now_ - tokens_at_) * admitted_);
    tokens_at_ = now_;
    bool refused = std::uniform_real_distribution<>()(random_) < noise_;
    if (!refused && admitted_ != UNBOUNDED) {
      refused = tokens_ < 1;
      if (!refused)
        tokens_ -= 1;
    }
    flying_.push({now_ + latency_, refused, pace.begin(now_)});
    most = std::max(most, pace.in_flight());
    --idle_;
  }
  void end() {
    const Flight flight = flying_.top();
    flying_.pop();
    pace.end(now_, flight.generation, flight.refused);
    if (flight.refused) {
      ++refused;
      resting_.push(now_ + 1);
    } else {
      ++taken;
      ++idle_;
    }
  }

  double admitted_, burst_, latency_;
  int idle_;
  double noise_; ///< this part of the requests is refused whatever the rate
  std::mt19937 random_;
  bool paced_;
  double now_ = 0, tokens_ = 0, tokens_at_ = 0;
  Earliest<Flight> flying_;
  Earliest<double> resting_;
};

TEST(Request_Pace, is_open_while_nothing_is_refused) {
  Request_Pace pace;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(0, pace.wait(i * 0.001));
    pace.begin(i * 0.001);
  }
  EXPECT_EQ(1000u, pace.in_flight());
  for (int i = 0; i < 1000; ++i)
    pace.end(2, 0, false);
  EXPECT_EQ(0u, pace.in_flight());
  EXPECT_EQ(0, pace.limit());
  EXPECT_EQ(0, pace.rate());
}

TEST(Request_Pace, fewer_are_in_flight_after_a_refusal_and_more_while_it_goes_well) {
  Request_Pace pace;
  for (int i = 0; i < 16; ++i)
    pace.begin(0);
  pace.end(0.1, 0, true);
  EXPECT_EQ(12, pace.limit());
  EXPECT_GT(0, pace.wait(0.1)) << "15 are still in flight";
  // What was sent before the cut says nothing new.
  for (int i = 0; i < 15; ++i)
    pace.end(0.1, 0, true);
  EXPECT_EQ(12, pace.limit());
  // As many as may be, all of the time, each of them for half a second.
  std::deque<std::pair<double, unsigned long>> flying;
  for (double now = 1; now < 100; now += 0.01) {
    while (!flying.empty() && flying.front().first <= now) {
      pace.end(now, flying.front().second, false);
      flying.pop_front();
    }
    while (pace.wait(now) == 0)
      flying.emplace_back(now + 0.5, pace.begin(now));
  }
  EXPECT_LT(20, pace.limit());
}

TEST(Request_Pace, refusals_of_one_moment_cut_once) {
  Request_Pace pace;
  for (int i = 0; i < 100; ++i)
    pace.begin(0);
  for (int i = 0; i < 50; ++i)
    pace.end(0.5, 0, false);
  pace.end(0.5, 0, true);
  const double rate = pace.rate(), limit = pace.limit();
  for (int i = 0; i < 49; ++i)
    pace.end(0.5, 0, true);
  EXPECT_EQ(rate, pace.rate());
  EXPECT_EQ(limit, pace.limit());
}

TEST(Request_Pace, refusal_that_shows_late_counts) {
  Request_Pace pace;
  const unsigned long generation = pace.begin(0);
  pace.end(0.1, generation, false);
  pace.refuse(0.2, generation);
  EXPECT_LT(0, pace.rate());
  EXPECT_EQ(0u, pace.in_flight());
}

TEST(Request_Pace, nine_tenths_are_reached_within_20_seconds_and_under_one_in_a_hundred_is_refused_after) {
  for (const double admitted : {20.0, 50.0, 100.0, 500.0, 2000.0})
    for (const double latency : {0.001, 0.02, 0.1})
      for (const int workers : {8, 32, 128})
        for (const double burst : {0.1, 1.0}) {
          if (admitted < 50 && burst > 0.1)
            continue; // one in a hundred would be a handful
          SCOPED_TRACE(std::to_string(admitted) + "/s, latency " + std::to_string(latency) + ", " +
                       std::to_string(workers) + " workers, burst " + std::to_string(burst));
          Simulation simulation(admitted, burst, latency, workers);
          simulation.run(15);
          simulation.count_anew();
          simulation.run(20);
          const double possible = std::min(admitted, workers / latency);
          EXPECT_LE(0.9, simulation.taken / 5 / possible) << "reached by then";
          simulation.count_anew();
          simulation.run(60);
          EXPECT_LE(0.9, simulation.taken / 40 / possible);
          EXPECT_GT(0.01, simulation.refused / (simulation.refused + simulation.taken));
          EXPECT_GE(static_cast<unsigned>(workers), simulation.most);
        }
}

TEST(Request_Pace, follows_a_service_that_takes_less_and_then_more) {
  Simulation simulation(400, 0.1, 0.02, 32);
  simulation.run(30);
  simulation.admit(40);
  simulation.run(45);
  simulation.count_anew();
  simulation.run(75);
  EXPECT_LE(0.85, simulation.taken / 30 / 40);
  EXPECT_GT(0.02, simulation.refused / (simulation.refused + simulation.taken));
  simulation.admit(400);
  simulation.run(120);
  simulation.count_anew();
  simulation.run(150);
  EXPECT_LE(0.85, simulation.taken / 30 / 400);
  EXPECT_GT(0.02, simulation.refused / (simulation.refused + simulation.taken));
}

TEST(Request_Pace, comes_back_after_a_service_was_gone) {
  Simulation simulation(200, 0.1, 0.02, 16);
  simulation.run(20);
  simulation.admit(0.0001);
  simulation.run(80);
  simulation.admit(200);
  simulation.run(110);
  simulation.count_anew();
  simulation.run(120);
  EXPECT_LE(0.85, simulation.taken / 10 / 200);
}

/// The mean over some seeds of what is taken per second from the one moment to the other.
template <typename Check>
double mean_taken(double admitted, double latency, double noise, bool paced, double from, double to, Check check) {
  double sum = 0;
  constexpr unsigned SEEDS = 5;
  for (unsigned seed = 1; seed <= SEEDS; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Simulation simulation(admitted, 0.1, latency, 32, noise, seed, paced);
    simulation.run(from);
    simulation.count_anew();
    simulation.run(to);
    check(simulation);
    sum += simulation.taken / (to - from);
  }
  return sum / SEEDS;
}

TEST(Request_Pace, service_that_refuses_at_random_is_not_held_back) {
  for (const double noise : {0.01, 0.02, 0.05})
    for (const double latency : {0.02, 0.1}) {
      SCOPED_TRACE(std::to_string(noise) + " refused, latency " + std::to_string(latency));
      const auto none = [](const Simulation&) {};
      const double open = mean_taken(Simulation::UNBOUNDED, latency, noise, false, 100, 250, none);
      const double paced =
          mean_taken(Simulation::UNBOUNDED, latency, noise, true, 100, 250, [&](const Simulation& one) {
            EXPECT_LE(open / 2, one.taken / 150);
            EXPECT_LT(noise / 2, one.pace.noise());
            EXPECT_GT(noise * 2, one.pace.noise());
          });
      EXPECT_LE(0.9 * open, paced);
      // With what it costs to find out.
      EXPECT_LE(0.5 * open, mean_taken(Simulation::UNBOUNDED, latency, noise, true, 0, 60, none));
    }
}

TEST(Request_Pace, limit_is_found_among_random_refusals) {
  for (const double noise : {0.01, 0.02})
    for (const double admitted : {100.0, 500.0}) {
      SCOPED_TRACE(std::to_string(noise) + " refused, " + std::to_string(admitted) + "/s");
      EXPECT_LE(0.9, mean_taken(admitted, 0.02, noise, true, 100, 250, [&](const Simulation& one) {
                       EXPECT_GT(noise + 0.02, one.refused / (one.refused + one.taken));
                     }) / admitted);
    }
}

TEST(Request_Pace, noise_that_is_gone_is_tolerated_no_longer) {
  Simulation simulation(200, 0.1, 0.02, 32, 0.04);
  simulation.run(150);
  EXPECT_LT(0.01, simulation.pace.noise());
  simulation.make_noise(0);
  // It is looked at again, ever more rarely.
  simulation.run(500);
  EXPECT_GT(0.005, simulation.pace.noise());
  simulation.count_anew();
  simulation.run(600);
  EXPECT_LE(0.85, simulation.taken / 100 / 200);
  EXPECT_GT(0.01, simulation.refused / (simulation.refused + simulation.taken));
}

} // namespace
