#include "sdk/json/json_spirit.h"
#include "sdk/json/yajl_handler.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace json_spirit {

namespace {

/// Values are copied, compared, written and destroyed by recursion, so what others send must not decide how deep it
/// goes.
constexpr size_t MAX_DEPTH = 512;

/// Builds a value from the events of its text.
class Builder : public YAJL_Handler {
public:
  bool handle_null_i() override { return add(Value()); }
  bool handle_boolean_i(bool value) override { return add(Value(value)); }
  bool handle_number_i(const char* text, unsigned length) override { return add(number(text, text + length)); }
  bool handle_string_i(const char* text, unsigned length) override { return add(Value(std::string(text, length))); }
  bool handle_start_map_i() override { return open(Value(Object())); }
  bool handle_end_map_i() override { return close(); }
  bool handle_start_array_i() override { return open(Value(Array())); }
  bool handle_end_array_i() override { return close(); }

  bool handle_map_key_i(const char* text, unsigned length) override {
    levels_.back().key.assign(text, length);
    return true;
  }

  Value& value() { return value_; }

private:
  struct Level {
    Value container;
    std::string key; ///< of the member that comes next
  };

  bool open(Value&& container) {
    if (levels_.size() == MAX_DEPTH)
      throw std::runtime_error("nested deeper than " + std::to_string(MAX_DEPTH) + " levels");
    levels_.push_back(Level{std::move(container), std::string()});
    return true;
  }

  bool close() {
    Value done = std::move(levels_.back().container);
    levels_.pop_back();
    return add(std::move(done));
  }

  bool add(Value&& value) {
    if (levels_.empty()) {
      value_ = std::move(value);
      return true;
    }
    Level& level = levels_.back();
    if (level.container.type() == array_type)
      level.container.get_array().push_back(std::move(value));
    else
      level.container.get_obj()[level.key] = std::move(value);
    return true;
  }

  // Whole numbers keep all their digits as long as 64 bits hold them; beyond that, and with a fraction or exponent, a
  // number is a real.
  static Value number(const char* text, const char* end) {
    if (std::memchr(text, '.', static_cast<size_t>(end - text)) == nullptr &&
        std::memchr(text, 'e', static_cast<size_t>(end - text)) == nullptr &&
        std::memchr(text, 'E', static_cast<size_t>(end - text)) == nullptr) {
      long long integer = 0;
      if (std::from_chars(text, end, integer).ec == std::errc())
        return Value(integer);
      unsigned long long large = 0;
      if (*text != '-' && std::from_chars(text, end, large).ec == std::errc())
        return Value(large);
    }
    double real = 0;
    const std::from_chars_result result = std::from_chars(text, end, real);
    // Too small a number is reported in the same way as too large a one, but is just zero.
    if (result.ec == std::errc::result_out_of_range && is_tiny(text, end))
      return Value(0.0);
    if (result.ec != std::errc() || !std::isfinite(real))
      throw std::runtime_error("number out of range");
    return Value(real);
  }

  // Whether a number outside the range of a real is so for being close to zero: by the place of its first digit that
  // is none, seen from the decimal point.
  static bool is_tiny(const char* text, const char* end) {
    const char* const exponent_at = std::find_if(text, end, [](char c) { return c == 'e' || c == 'E'; });
    const char* const point = std::find(text, exponent_at, '.');
    const char* const digit = std::find_if(text, exponent_at, [](char c) { return c >= '1' && c <= '9'; });
    long long place = digit < point ? point - digit : point + 1 - digit;
    if (exponent_at != end) {
      const char* from = exponent_at + 1;
      if (from != end && *from == '+')
        ++from;
      long long exponent = 0;
      if (std::from_chars(from, end, exponent).ec != std::errc())
        return from != end && *from == '-';
      if (exponent < -1000000000 || exponent > 1000000000)
        return exponent < 0;
      place += exponent;
    }
    return place < 0;
  }

  Value value_;
  std::vector<Level> levels_;
};

} // namespace

bool read(const std::string& text, Value& value, std::string* error) {
  Builder builder;
  std::string message;
  if (!yajl_parse(text, builder, message)) {
    if (error != nullptr)
      *error = message;
    return false;
  }
  value = std::move(builder.value());
  return true;
}

} // namespace json_spirit
