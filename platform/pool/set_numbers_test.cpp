#include "platform/pool/set_numbers.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

Set_Numbers taken(std::initializer_list<unsigned> oldest_first) {
  Set_Numbers numbers;
  for (unsigned seq : oldest_first)
    numbers.take(seq);
  return numbers;
}

TEST(set_numbers, first_set_of_all_is_number_1) {
  EXPECT_EQ(1u, Set_Numbers().first_of_chain());
  EXPECT_FALSE(Set_Numbers().is_taken(1));
}

TEST(set_numbers, new_chain_goes_on_behind_the_highest) {
  EXPECT_EQ(3u, taken({1, 2}).first_of_chain());
  EXPECT_EQ(10u, taken({9, 2}).first_of_chain());
  EXPECT_EQ(65534u, taken({65533}).first_of_chain());
}

TEST(set_numbers, new_chain_never_begins_with_the_last_number) {
  EXPECT_EQ(1u, taken({65534}).first_of_chain());
  EXPECT_EQ(1u, taken({65534, 65535}).first_of_chain());
}

TEST(set_numbers, behind_the_last_numbers_a_new_chain_takes_no_number_in_use) {
  EXPECT_EQ(3u, taken({65534, 65535, 1, 2}).first_of_chain());
  EXPECT_EQ(4u, taken({1, 2, 65535, 3}).first_of_chain());
  EXPECT_EQ(8u, taken({1, 2, 65535, 7}).first_of_chain());
  // Also where the newest set is one of the last numbers.
  EXPECT_EQ(2u, taken({1, 3, 65534, 65535}).first_of_chain());
}

TEST(set_numbers, incremental_is_the_next_one_behind_its_base) {
  EXPECT_EQ(2u, taken({1}).behind(1));
  EXPECT_EQ(65535u, taken({65534}).behind(65534));
}

TEST(set_numbers, incremental_takes_no_number_in_use) {
  EXPECT_EQ(3u, taken({1, 2}).behind(1));
  EXPECT_EQ(5u, taken({1, 2, 3, 4, 65535}).behind(2));
  EXPECT_EQ(1u, taken({65534, 65535}).behind(65534));
  EXPECT_EQ(2u, taken({1, 65534, 65535}).behind(65534));
}

TEST(set_numbers, numbers_beyond_16_bits_are_never_given) {
  EXPECT_EQ(1u, taken({70000}).first_of_chain());
  EXPECT_EQ(1u, taken({70000}).behind(70000));
  EXPECT_EQ(1u, taken({4294967295u}).first_of_chain());
}

TEST(set_numbers, when_all_are_in_use_there_is_none) {
  Set_Numbers all;
  for (unsigned seq = 1; seq < Set_Numbers::LAST; ++seq)
    all.take(seq);
  EXPECT_EQ(0u, all.first_of_chain());
  EXPECT_EQ(Set_Numbers::LAST, all.behind(5));
  all.take(Set_Numbers::LAST);
  EXPECT_EQ(0u, all.behind(5));
}

} // namespace
