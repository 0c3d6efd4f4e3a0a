#include "platform/s3/busy_time.h"

#include <cstdio>
#include <ctime>
#include <memory>

namespace s3 {
namespace {

/// Seconds that the thread could have worked and had no processor; 0 where the system does not count them.
double delayed_seconds() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/proc/thread-self/schedstat", "re"), &std::fclose);
  unsigned long long worked = 0, delayed = 0;
  if (!file || std::fscanf(file.get(), "%llu %llu", &worked, &delayed) != 2)
    return 0;
  return static_cast<double>(delayed) / 1e9;
}

} // namespace

double busy_seconds() {
  timespec worked = {};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &worked);
  return static_cast<double>(worked.tv_sec) + static_cast<double>(worked.tv_nsec) / 1e9 + delayed_seconds();
}

} // namespace s3
