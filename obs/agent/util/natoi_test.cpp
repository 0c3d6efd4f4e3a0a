#include "obs/agent/util/natoi.h"

#include <ace/Basic_Types.h>

#include <gtest/gtest.h>

#include <string>

namespace {

template <typename T>
T number(const std::string& text, int expected_error = 0) {
  int error = -1;
  const T value = natoi<T>(text.data(), text.size(), &error);
  EXPECT_EQ(expected_error, error) << text;
  return value;
}

TEST(natoi, digits_give_their_value) {
  EXPECT_EQ(0, number<ACE_INT32>("0"));
  EXPECT_EQ(42, number<ACE_INT32>("42"));
  EXPECT_EQ(42, number<ACE_INT32>("00042"));
}

TEST(natoi, sign_is_taken_once) {
  EXPECT_EQ(7, number<ACE_INT32>("+7"));
  EXPECT_EQ(-7, number<ACE_INT32>("-7"));
  EXPECT_EQ(0, number<ACE_INT32>("--7", EINVAL));
  EXPECT_EQ(0, number<ACE_INT32>("+-7", EINVAL));
}

TEST(natoi, first_other_character_ends_the_number) {
  EXPECT_EQ(12, number<ACE_INT32>("12abc"));
  EXPECT_EQ(1, number<ACE_INT32>("1.9"));
  EXPECT_EQ(-3, number<ACE_INT32>("-3e5"));
}

TEST(natoi, text_without_digits_is_zero_and_invalid) {
  for (const char* text : {"", "+", "-", "abc", " 1"})
    EXPECT_EQ(0, number<ACE_INT32>(text, EINVAL));
  int error = 0;
  EXPECT_EQ(0, natoi<int>(nullptr, 0, &error));
  EXPECT_EQ(EINVAL, error);
}

TEST(natoi, text_is_not_read_behind_its_length) {
  EXPECT_EQ(12, natoi<int>("1234", 2));
}

TEST(natoi, limits_of_each_type_fit) {
  EXPECT_EQ(2147483647, number<ACE_INT32>("2147483647"));
  EXPECT_EQ(-2147483647 - 1, number<ACE_INT32>("-2147483648"));
  EXPECT_EQ(4294967295u, number<ACE_UINT32>("4294967295"));
  EXPECT_EQ(9223372036854775807ll, number<ACE_INT64>("9223372036854775807"));
  EXPECT_EQ(-9223372036854775807ll - 1, number<ACE_INT64>("-9223372036854775808"));
  EXPECT_EQ(18446744073709551615ull, number<ACE_UINT64>("18446744073709551615"));
}

TEST(natoi, overflow_is_the_largest_value_also_for_a_negative_number) {
  EXPECT_EQ(2147483647, number<ACE_INT32>("2147483648", ERANGE));
  EXPECT_EQ(2147483647, number<ACE_INT32>("-2147483649", ERANGE));
  EXPECT_EQ(2147483647, number<ACE_INT32>("99999999999999999999999", ERANGE));
  EXPECT_EQ(2147483647, number<ACE_INT32>("-99999999999999999999999", ERANGE));
  EXPECT_EQ(4294967295u, number<ACE_UINT32>("4294967296", ERANGE));
  EXPECT_EQ(9223372036854775807ll, number<ACE_INT64>("9223372036854775808", ERANGE));
  EXPECT_EQ(18446744073709551615ull, number<ACE_UINT64>("18446744073709551616", ERANGE));
  EXPECT_EQ(9223372036854775807ll, number<ACE_INT64>("-9223372036854775809", ERANGE));
  EXPECT_EQ(4294967295u, number<ACE_UINT32>("-4294967296", ERANGE));
  EXPECT_EQ(18446744073709551615ull, number<ACE_UINT64>("-18446744073709551616", ERANGE));
}

TEST(natoi, negative_number_of_an_unsigned_type_wraps_round) {
  EXPECT_EQ(4294967295u, number<ACE_UINT32>("-1"));
  EXPECT_EQ(4294967291u, number<ACE_UINT32>("-5"));
  EXPECT_EQ(1u, number<ACE_UINT32>("-4294967295"));
  EXPECT_EQ(0u, number<ACE_UINT32>("-0"));
  EXPECT_EQ(18446744073709551614ull, number<ACE_UINT64>("-2"));
}

} // namespace
