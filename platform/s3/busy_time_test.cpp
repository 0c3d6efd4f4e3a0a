#include "platform/s3/busy_time.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

double worked_seconds() {
  timespec worked = {};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &worked);
  return static_cast<double>(worked.tv_sec) + static_cast<double>(worked.tv_nsec) / 1e9;
}

TEST(busy_time, work_of_the_calling_thread_counts_whole) {
  const double before = s3::busy_seconds();
  const double end = worked_seconds() + 0.03;
  while (worked_seconds() < end) {
  }
  EXPECT_GE(s3::busy_seconds() - before, 0.03);
}

} // namespace
