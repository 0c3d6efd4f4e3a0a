#include "platform/s3/range_growth.h"

#include <gtest/gtest.h>

namespace {

/// A service whose every stream brings `per_stream` bytes a second, over a link of `link`; the reader takes `reader`.
/// What it is at it for longer, it waits for bytes, but for the share `busy` of all its time.
struct Line {
  double per_stream, link, reader;
  double busy = 0;
  s3::Range_Growth growth{1, 8};
  double now = 0, received = 0, waited = 0;

  void run(double seconds) {
    const double step = 0.05;
    for (const double end = now + seconds; now < end; now += step) {
      const double offered = std::min(per_stream * growth.streams(), link);
      const double rate = std::min(offered, reader);
      received += rate * step;
      waited += step * (1 - rate / reader);
      growth.update(now, static_cast<unsigned long long>(received), waited, busy * now);
    }
  }
};

TEST(range_growth, streams_that_are_capped_each_are_doubled_up_to_the_bound) {
  Line line{20e6, 1e9, 500e6};
  EXPECT_EQ(1u, line.growth.streams());
  line.run(0.5);
  EXPECT_GT(line.growth.streams(), 1u);
  line.run(1.5);
  EXPECT_EQ(8u, line.growth.streams());
  line.run(30);
  EXPECT_EQ(8u, line.growth.streams());
}

TEST(range_growth, link_that_one_stream_fills_is_left_to_it_but_for_a_try_now_and_then) {
  Line line{20e6, 20e6, 500e6};
  line.run(1);
  EXPECT_EQ(1u, line.growth.streams());
  line.run(8);
  EXPECT_EQ(1u, line.growth.streams());
}

TEST(range_growth, growth_ends_where_the_link_is_full) {
  Line line{20e6, 70e6, 500e6};
  line.run(3);
  EXPECT_EQ(4u, line.growth.streams());
  line.run(5);
  EXPECT_EQ(4u, line.growth.streams());
}

TEST(range_growth, more_streams_may_be_begun_with) {
  EXPECT_EQ(4u, s3::Range_Growth(4, 8).streams());
  EXPECT_EQ(8u, s3::Range_Growth(9, 8).streams());
}

TEST(range_growth, reader_that_never_waits_needs_no_more_than_one_stream) {
  Line line{200e6, 1e9, 100e6};
  line.run(20);
  EXPECT_EQ(1u, line.growth.streams());
}

TEST(range_growth, reader_that_waits_for_a_processor_gets_no_more_streams_and_one_that_waits_for_bytes_does) {
  Line short_of_processors{20e6, 1e9, 500e6, 0.8};
  short_of_processors.run(5);
  EXPECT_EQ(1u, short_of_processors.growth.streams());
  Line short_of_bytes{20e6, 1e9, 500e6, 0.3};
  short_of_bytes.run(5);
  EXPECT_EQ(8u, short_of_bytes.growth.streams());
}

TEST(range_growth, growth_ends_when_the_reader_is_busy) {
  Line line{20e6, 1e9, 50e6};
  line.run(20);
  EXPECT_EQ(2u, line.growth.streams());
}

} // namespace
