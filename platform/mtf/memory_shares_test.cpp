#include "platform/mtf/memory_shares.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

TEST(memory_shares, shares_held_at_one_time_never_add_up_to_more) {
  Memory_Shares memory;
  memory.open(100);
  std::atomic<size_t> held{0}, served{0};
  std::atomic<bool> exceeded{false};
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < 8; ++thread)
    threads.emplace_back([&, thread] {
      for (size_t i = 0; i < 500; ++i) {
        const size_t bytes = (thread * 37 + i * 13) % 100 + 1;
        const Memory_Shares::Share share(memory, bytes);
        if (held.fetch_add(bytes) + bytes > 100)
          exceeded = true;
        std::this_thread::yield();
        held -= bytes;
        ++served;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(exceeded);
  EXPECT_EQ(4000u, served);
}

TEST(memory_shares, share_above_all_of_it_gets_all_of_it_alone) {
  Memory_Shares memory;
  memory.open(100);
  auto small = std::make_unique<Memory_Shares::Share>(memory, 1);
  std::atomic<bool> got{false};
  std::thread large([&] {
    const Memory_Shares::Share share(memory, 1000);
    got = true;
  });
  EXPECT_FALSE(got) << "while another one is held";
  small.reset();
  large.join();
  EXPECT_TRUE(got);
  EXPECT_FALSE(memory.has_waiting());
}

TEST(memory_shares, small_shares_do_not_overtake_a_large_one_that_waits) {
  Memory_Shares memory;
  memory.open(100);
  auto first = std::make_unique<Memory_Shares::Share>(memory, 50);
  std::atomic<bool> large_got{false}, small_got{false};
  std::thread large([&] {
    const Memory_Shares::Share share(memory, 80);
    large_got = true;
    EXPECT_FALSE(small_got) << "it came later";
  });
  while (!memory.has_waiting())
    std::this_thread::yield();
  std::thread small([&] {
    const Memory_Shares::Share share(memory, 30);
    small_got = true;
    EXPECT_TRUE(large_got);
  });
  first.reset();
  large.join();
  small.join();
  EXPECT_TRUE(small_got);
}

} // namespace
