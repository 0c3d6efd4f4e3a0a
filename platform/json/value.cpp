#include "sdk/json/json_spirit.h"

#include <limits>
#include <utility>

namespace json_spirit {

namespace {

// The alternatives of the variant, in its order.
enum Held { HELD_NULL, HELD_BOOL, HELD_INT, HELD_UINT, HELD_REAL, HELD_STR, HELD_OBJ, HELD_ARRAY };

const char* type_name(Value_type type) {
  switch (type) {
  case obj_type:
    return "object";
  case array_type:
    return "array";
  case str_type:
    return "string";
  case bool_type:
    return "boolean";
  case int_type:
    return "integer";
  case real_type:
    return "real number";
  case null_type:
    break;
  }
  return "null";
}

[[noreturn]] void wrong_type(Value_type wanted, Value_type found) {
  throw Type_Error(std::string("value is ") + type_name(found) + ", not " + type_name(wanted));
}

[[noreturn]] void out_of_range(const char* width) {
  throw Type_Error(std::string("integer does not fit ") + width);
}

} // namespace

Type_Error::~Type_Error() = default;

Value::Value() = default;

Value::Value(const char* text) {
  if (text != nullptr)
    value_ = std::string(text);
}

Value::Value(const std::string& text) : value_(text) {}
Value::Value(std::string&& text) : value_(std::move(text)) {}
Value::Value(const Object& object) : value_(new Object(object)) {}
Value::Value(Object&& object) : value_(new Object(std::move(object))) {}
Value::Value(const Array& array) : value_(new Array(array)) {}
Value::Value(Array&& array) : value_(new Array(std::move(array))) {}
Value::Value(bool value) : value_(value) {}
Value::Value(int value) : value_(static_cast<long long>(value)) {}
Value::Value(unsigned value) : Value(static_cast<unsigned long long>(value)) {}
Value::Value(long value) : value_(static_cast<long long>(value)) {}
Value::Value(unsigned long value) : Value(static_cast<unsigned long long>(value)) {}
Value::Value(long long value) : value_(value) {}
Value::Value(unsigned long long value) : value_(value) {}
Value::Value(double value) : value_(value) {}

Value::Value(const Value& other) {
  switch (other.value_.index()) {
  case HELD_OBJ:
    value_ = new Object(*std::get<HELD_OBJ>(other.value_));
    break;
  case HELD_ARRAY:
    value_ = new Array(*std::get<HELD_ARRAY>(other.value_));
    break;
  default:
    value_ = other.value_;
  }
}

Value::Value(Value&& other) noexcept : value_(std::move(other.value_)) {
  other.value_ = std::monostate();
}

Value& Value::operator=(const Value& other) {
  if (this != &other)
    *this = Value(other);
  return *this;
}

Value& Value::operator=(Value&& other) noexcept {
  if (this != &other) {
    // Taken out first: `other` may be a part of what this value lets go of.
    auto taken = std::move(other.value_);
    other.value_ = std::monostate();
    clear();
    value_ = std::move(taken);
  }
  return *this;
}

Value::~Value() {
  clear();
}

void Value::clear() {
  if (value_.index() == HELD_OBJ)
    delete std::get<HELD_OBJ>(value_);
  else if (value_.index() == HELD_ARRAY)
    delete std::get<HELD_ARRAY>(value_);
  value_ = std::monostate();
}

Value_type Value::type() const {
  switch (value_.index()) {
  case HELD_BOOL:
    return bool_type;
  case HELD_INT:
  case HELD_UINT:
    return int_type;
  case HELD_REAL:
    return real_type;
  case HELD_STR:
    return str_type;
  case HELD_OBJ:
    return obj_type;
  case HELD_ARRAY:
    return array_type;
  default:
    return null_type;
  }
}

bool Value::is_uint64() const {
  return value_.index() == HELD_UINT;
}

const std::string& Value::get_str() const {
  if (value_.index() != HELD_STR)
    wrong_type(str_type, type());
  return std::get<HELD_STR>(value_);
}

const Object& Value::get_obj() const {
  if (value_.index() != HELD_OBJ)
    wrong_type(obj_type, type());
  return *std::get<HELD_OBJ>(value_);
}

Object& Value::get_obj() {
  return const_cast<Object&>(std::as_const(*this).get_obj());
}

const Array& Value::get_array() const {
  if (value_.index() != HELD_ARRAY)
    wrong_type(array_type, type());
  return *std::get<HELD_ARRAY>(value_);
}

Array& Value::get_array() {
  return const_cast<Array&>(std::as_const(*this).get_array());
}

bool Value::get_bool() const {
  if (value_.index() != HELD_BOOL)
    wrong_type(bool_type, type());
  return std::get<HELD_BOOL>(value_);
}

int Value::get_int() const {
  const ACE_INT64 value = get_int64();
  if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
    out_of_range("32 bits");
  return static_cast<int>(value);
}

ACE_INT64 Value::get_int64() const {
  if (value_.index() == HELD_INT)
    return std::get<HELD_INT>(value_);
  if (value_.index() != HELD_UINT)
    wrong_type(int_type, type());
  const unsigned long long value = std::get<HELD_UINT>(value_);
  if (value > static_cast<unsigned long long>(std::numeric_limits<long long>::max()))
    out_of_range("64 signed bits");
  return static_cast<ACE_INT64>(value);
}

ACE_UINT64 Value::get_uint64() const {
  if (value_.index() == HELD_UINT)
    return std::get<HELD_UINT>(value_);
  if (value_.index() != HELD_INT)
    wrong_type(int_type, type());
  const long long value = std::get<HELD_INT>(value_);
  if (value < 0)
    out_of_range("64 unsigned bits");
  return static_cast<ACE_UINT64>(value);
}

double Value::get_real() const {
  switch (value_.index()) {
  case HELD_REAL:
    return std::get<HELD_REAL>(value_);
  case HELD_INT:
    return static_cast<double>(std::get<HELD_INT>(value_));
  case HELD_UINT:
    return static_cast<double>(std::get<HELD_UINT>(value_));
  default:
    wrong_type(real_type, type());
  }
}

bool Value::operator==(const Value& other) const {
  if (type() != other.type())
    return false;
  switch (value_.index()) {
  case HELD_OBJ:
    return get_obj() == other.get_obj();
  case HELD_ARRAY:
    return get_array() == other.get_array();
  case HELD_INT:
  case HELD_UINT:
    // The same number may be held in either way.
    if (value_.index() == other.value_.index())
      return value_ == other.value_;
    if (value_.index() == HELD_INT)
      return std::get<HELD_INT>(value_) >= 0 &&
             static_cast<unsigned long long>(std::get<HELD_INT>(value_)) == std::get<HELD_UINT>(other.value_);
    return other == *this;
  default:
    return value_ == other.value_;
  }
}

const Value* find(const Object& object, const char* key) {
  const Object::const_iterator at = object.find(key);
  return at == object.end() ? nullptr : &at->second;
}

const std::string& require_str(const Object& object, const char* key) {
  const Value* value = find(object, key);
  if (value == nullptr)
    throw Type_Error(std::string("'") + key + "' is missing");
  if (value->type() != str_type)
    throw Type_Error(std::string("'") + key + "': value is " + type_name(value->type()) + ", not string");
  return value->get_str();
}

std::string optional_str(const Object& object, const char* key) {
  const Value* value = find(object, key);
  return value != nullptr && value->type() == str_type ? value->get_str() : std::string();
}

} // namespace json_spirit
