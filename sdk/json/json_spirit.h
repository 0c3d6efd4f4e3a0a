#pragma once

#include <ace/Basic_Types.h>

#include <map>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

/// JSON values. Strings are bytes: they are read and written as they are, also where they are no UTF-8, because
/// object keys are bytes.
namespace json_spirit {

class Value;
typedef std::map<std::string, Value> Object;
typedef std::vector<Value> Array;

enum Value_type { obj_type, array_type, str_type, bool_type, int_type, real_type, null_type };

/// Thrown by the typed getters when the value is of another type; says which was wanted and which was found.
class Type_Error : public std::runtime_error {
public:
  explicit Type_Error(const std::string& what) : std::runtime_error(what) {}
  ~Type_Error() override;
};

/// One JSON value, copied deeply. Not for use by several threads while one of them changes it.
class Value {
public:
  Value();                 ///< null
  Value(const char* text); ///< null pointer: JSON null
  Value(const std::string& text);
  Value(std::string&& text);
  Value(const Object& object);
  Value(Object&& object);
  Value(const Array& array);
  Value(Array&& array);
  Value(bool value);
  Value(int value);
  Value(unsigned value);
  Value(long value);
  Value(unsigned long value);
  Value(long long value);
  Value(unsigned long long value);
  Value(double value);
  Value(const Value&);
  Value(Value&&) noexcept;
  Value& operator=(const Value&);
  Value& operator=(Value&&) noexcept;
  ~Value();

  Value_type type() const;
  bool is_null() const { return type() == null_type; }
  /// True for a whole number that was given as, or is too large for anything but, an unsigned 64-bit one.
  bool is_uint64() const;

  /// The typed getters throw Type_Error on another type; an integer that does not fit the asked width is a Type_Error
  /// too. References stay valid while the value is unchanged.
  const std::string& get_str() const;
  const Object& get_obj() const;
  Object& get_obj();
  const Array& get_array() const;
  Array& get_array();
  bool get_bool() const;
  int get_int() const;
  ACE_INT64 get_int64() const;
  ACE_UINT64 get_uint64() const;
  double get_real() const; ///< whole numbers too

  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }

private:
  // Object and Array are incomplete here, so they live on the heap, owned.
  std::variant<std::monostate, bool, long long, unsigned long long, double, std::string, Object*, Array*> value_;
  void clear();
};

/// Reads one JSON text into `value`. On false `error`, when given, says what is wrong and at which byte; `value` is
/// then untouched.
bool read(const std::string& text, Value& value, std::string* error = nullptr);
/// The shortest JSON text of a value; strings byte for byte.
std::string write(const Value& value);
/// The same over several lines, indented by two spaces.
std::string write_formatted(const Value& value);
/// The same as `write`, but valid UTF-8 whatever the strings hold: a byte that is no part of a UTF-8 character becomes
/// U+FFFD. For readers outside the system.
std::string write_utf8(const Value& value);

/// The member `key` of `object`, or null when there is none. Stays valid while the object is unchanged.
const Value* find(const Object& object, const char* key);
/// The string member `key`; throws Type_Error, naming the key, when it is missing or no string.
const std::string& require_str(const Object& object, const char* key);
/// The string member `key`, or an empty text when it is missing or no string.
std::string optional_str(const Object& object, const char* key);

} // namespace json_spirit
