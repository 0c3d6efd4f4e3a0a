#include "fuzz/driver/guard.h"

#include "fuzz/fuzz_target.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#include <thread>
#include <unistd.h>

extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void*, size_t),
                                              void (*on_free)(const volatile void*));
/// A parser that asks for half a gigabyte because a field of its input says so is a finding.
const char* __asan_default_options() {
  return "handle_abort=1:max_allocation_size_mb=512:detect_leaks=1:exitcode=77:symbolize=1";
}
const char* __ubsan_default_options() {
  // Its runtime knows no callback of ours; the other one takes the signal up.
  return "print_stacktrace=1:abort_on_error=1";
}
}

namespace {

constexpr int EXIT_FINDING = 77;
/// Libraries keep what they allocate at first use; only a run that allocates again and again is worth the search.
constexpr unsigned MAX_LEAK_CHECKS = 200;
/// How much longer than the processor's time the clock's may be.
constexpr unsigned PATIENCE = 10;

std::string folder;
std::string name;
const char* data;
std::atomic<size_t> size;
std::atomic<bool> running;
std::atomic<bool> saved;
std::atomic<long long> started;
std::atomic<long long> started_cpu;
std::atomic<long> balance;
unsigned leak_checks;

long long now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

long long cpu_now() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return time.tv_sec * 1000ll + time.tv_nsec / 1000000;
}

void save(const char* kind) {
  if (saved.exchange(true) || data == nullptr)
    return;
  uint64_t hash = 0xCBF29CE484222325ull;
  const size_t length = size;
  for (size_t i = 0; i < length; ++i)
    hash = (hash ^ static_cast<unsigned char>(data[i])) * 0x100000001B3ull;
  char path[4096];
  std::snprintf(path, sizeof path, "%s/%s-%s-%016llx", folder.c_str(), name.c_str(), kind,
                static_cast<unsigned long long>(hash));
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  size_t done = 0;
  while (fd >= 0 && done < length) {
    const ssize_t count = ::write(fd, data + done, length - done);
    if (count <= 0)
      break;
    done += static_cast<size_t>(count);
  }
  if (fd >= 0)
    ::close(fd);
  std::fprintf(stderr, "fuzz: %s: %s; the input is in %s\n", name.c_str(), kind, path);
}

void on_death() {
  save("crash");
}

void watch(unsigned seconds) {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    // A machine that is busy with other things makes no input slow; one that waits for ever uses no processor.
    if (running && (cpu_now() - started_cpu > 1000ll * seconds || now() - started > 1000ll * seconds * PATIENCE)) {
      std::fprintf(stderr, "fuzz: %s: an input takes longer than %u seconds\n", name.c_str(), seconds);
      save("hang");
      std::_Exit(EXIT_FINDING);
    }
  }
}

} // namespace

namespace guard {

void start(const std::string& where, const std::string& target, unsigned seconds_per_input) {
  folder = where;
  name = target;
  __sanitizer_set_death_callback(on_death);
  __sanitizer_install_malloc_and_free_hooks(
      [](const volatile void*, size_t) {
        if (running)
          balance.fetch_add(1, std::memory_order_relaxed);
      },
      [](const volatile void*) {
        if (running)
          balance.fetch_sub(1, std::memory_order_relaxed);
      });
  std::thread(watch, seconds_per_input).detach();
}

void enter(std::string_view input) {
  data = input.data();
  size = input.size();
  balance = 0;
  started = now();
  started_cpu = cpu_now();
  running = true;
}

void leave() {
  running = false;
}

void check_leaks() {
  if (balance <= 0 || leak_checks >= MAX_LEAK_CHECKS)
    return;
  ++leak_checks;
  if (__lsan_do_recoverable_leak_check() != 0) {
    save("leak");
    std::_Exit(EXIT_FINDING);
  }
}

} // namespace guard

void fuzz_fail(const std::string& what) {
  std::fprintf(stderr, "fuzz: %s: %s\n", name.c_str(), what.c_str());
  save("wrong");
  std::_Exit(EXIT_FINDING);
}
