#pragma once

#include <cerrno>
#include <cstddef>
#include <limits>
#include <type_traits>

/// The number at the beginning of `text`, which need not end in NUL: an optional "+" or "-", then decimal digits up
/// to the first other character or the end. No digit gives 0 (`error` EINVAL). What does not fit gives the largest
/// value of T, also for a negative number (`error` ERANGE). A negative number for an unsigned T wraps round.
/// `error` may be null and is otherwise 0 where nothing else is said.
template <typename T>
T natoi(const char* text, size_t length, int* error = nullptr) {
  typedef std::make_unsigned_t<T> Magnitude;
  int ignored = 0;
  int& result = error ? *error : ignored;
  result = 0;

  size_t at = 0;
  bool negative = false;
  if (text && length > 0 && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    at = 1;
  }
  // A signed type holds one negative number more than positive ones.
  const Magnitude limit =
      static_cast<Magnitude>(std::numeric_limits<T>::max()) + (std::is_signed_v<T> && negative ? 1u : 0u);
  const size_t first = at;
  Magnitude value = 0;
  for (; text && at < length && text[at] >= '0' && text[at] <= '9'; ++at) {
    const Magnitude digit = static_cast<Magnitude>(text[at] - '0');
    if (value > (limit - digit) / 10) {
      result = ERANGE;
      return std::numeric_limits<T>::max();
    }
    value = static_cast<Magnitude>(value * 10 + digit);
  }
  if (at == first)
    result = EINVAL;
  return static_cast<T>(negative ? static_cast<Magnitude>(0 - value) : value);
}
