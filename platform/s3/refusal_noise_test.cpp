#include "platform/s3/refusal_noise.h"

#include <gtest/gtest.h>

namespace {

using s3::Refusal_Noise;

TEST(Refusal_Noise, the_same_share_at_half_the_rate_is_noise) {
  Refusal_Noise noise;
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(0, 1000, 20, true));
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(450, 250, 5, true));
  EXPECT_EQ(Refusal_Noise::NOISE, noise.end_epoch(200, 200, 4, true));
  EXPECT_NEAR(0.02, noise.share(), 0.001);
  EXPECT_EQ(1000, noise.top());
}

TEST(Refusal_Noise, refusals_that_end_with_the_rate_are_none) {
  Refusal_Noise noise;
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(0, 1000, 50, true));
  for (int epoch = 0; epoch < 50; ++epoch)
    EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(400, 400, 0, false));
  EXPECT_EQ(0, noise.share());
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(900, 900, 300, true)) << "far too many";
  EXPECT_EQ(0, noise.share());
}

/// Tells of surprises at 100 requests per second until a lower rate is to be tried.
Refusal_Noise surprised() {
  Refusal_Noise noise;
  for (int epoch = 0; epoch < 10; ++epoch)
    if (noise.end_epoch(100, 100, 2, true) == Refusal_Noise::TRY_LOWER)
      return noise;
  ADD_FAILURE() << "nothing is tried";
  return noise;
}

TEST(Refusal_Noise, surprises_without_an_end_have_a_lower_rate_tried) {
  Refusal_Noise noise = surprised();
  EXPECT_TRUE(noise.on_trial());
  EXPECT_GT(70, noise.trial_rate());
  EXPECT_LT(50, noise.trial_rate());
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(66, 66, 1, false));
  EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(66, 66, 2, false));
  EXPECT_EQ(Refusal_Noise::NOISE, noise.end_epoch(66, 66, 1, false));
  EXPECT_NEAR(0.02, noise.share(), 0.001);
  EXPECT_FALSE(noise.active());
}

TEST(Refusal_Noise, trial_without_refusals_shows_a_limit) {
  Refusal_Noise noise = surprised();
  Refusal_Noise::Verdict verdict = Refusal_Noise::NOTHING;
  for (int epoch = 0; epoch < 10 && verdict == Refusal_Noise::NOTHING; ++epoch)
    verdict = noise.end_epoch(66, 66, 0, false);
  EXPECT_EQ(Refusal_Noise::LIMIT, verdict);
  EXPECT_EQ(0, noise.share());
}

TEST(Refusal_Noise, trial_that_goes_badly_is_broken_off) {
  Refusal_Noise noise = surprised();
  EXPECT_EQ(Refusal_Noise::LIMIT, noise.end_epoch(66, 66, 40, true));
  EXPECT_EQ(0, noise.share());
  EXPECT_FALSE(noise.on_trial());
}

TEST(Refusal_Noise, service_that_refuses_all_is_not_noisy) {
  Refusal_Noise noise;
  for (int epoch = 0; epoch < 100; ++epoch)
    EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(1, 1, 1, true));
  EXPECT_EQ(0, noise.share());
}

TEST(Refusal_Noise, surprises_after_a_raise_come_from_it) {
  Refusal_Noise noise;
  for (int epoch = 0; epoch < 100; ++epoch) {
    EXPECT_EQ(Refusal_Noise::NOTHING, noise.end_epoch(100, 100, 1, true));
    noise.raised();
  }
  EXPECT_EQ(0, noise.share());
}

TEST(Refusal_Noise, known_noise_is_looked_at_again_and_forgotten_where_it_is_gone) {
  Refusal_Noise noise = surprised();
  while (noise.on_trial())
    noise.end_epoch(66, 66, 2, false);
  ASSERT_LT(0.01, noise.share());
  Refusal_Noise::Verdict verdict = Refusal_Noise::NOTHING;
  int epochs = 0;
  for (; epochs < 200 && verdict == Refusal_Noise::NOTHING; ++epochs)
    verdict = noise.end_epoch(100, 100, 0, false);
  EXPECT_EQ(Refusal_Noise::TRY_LOWER, verdict);
  EXPECT_LT(10, epochs);
  while (noise.on_trial())
    verdict = noise.end_epoch(66, 66, 0, false);
  EXPECT_EQ(Refusal_Noise::NOISE, verdict) << "the rate may be again what it was";
  EXPECT_EQ(0, noise.share());
}

TEST(Refusal_Noise, share_is_known_better_with_time) {
  Refusal_Noise noise = surprised();
  while (noise.on_trial())
    noise.end_epoch(66, 66, 4, false);
  const double before = noise.share();
  for (int epoch = 0; epoch < 20; ++epoch)
    noise.learn(100, 1);
  EXPECT_GT(before, noise.share());
  EXPECT_LT(0.009, noise.share());
}

} // namespace
