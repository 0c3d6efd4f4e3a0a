#include "platform/base/utf8.h"
#include "sdk/json/json_spirit.h"

#include <charconv>
#include <cmath>

namespace json_spirit {

namespace {

/// Writes values as text. Not done with YAJL's generator: that one stops at 127 levels without a word, and prints
/// reals in the locale's way.
class Writer {
public:
  explicit Writer(bool formatted) : formatted_(formatted) {}

  void put(const Value& value) {
    switch (value.type()) {
    case null_type:
      text_ += "null";
      break;
    case bool_type:
      text_ += value.get_bool() ? "true" : "false";
      break;
    case int_type:
      put_integer(value);
      break;
    case real_type:
      put_real(value.get_real());
      break;
    case str_type:
      put_string(value.get_str());
      break;
    case obj_type:
      put_object(value.get_obj());
      break;
    case array_type:
      put_array(value.get_array());
      break;
    }
  }

  std::string& text() { return text_; }

private:
  void put_integer(const Value& value) {
    char digits[24];
    const std::to_chars_result end = value.is_uint64()
                                         ? std::to_chars(digits, digits + sizeof digits, value.get_uint64())
                                         : std::to_chars(digits, digits + sizeof digits, value.get_int64());
    text_.append(digits, end.ptr);
  }

  void put_real(double value) {
    if (!std::isfinite(value)) {
      text_ += "null";
      return;
    }
    char digits[40];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
    const std::string number(digits, end.ptr);
    text_ += number;
    // Read back it shall be a real again.
    if (number.find_first_of(".e") == std::string::npos)
      text_ += ".0";
  }

  void put_string(const std::string& string) {
    static const char hex[] = "0123456789ABCDEF";
    text_ += '"';
    for (const char c : string) {
      switch (c) {
      case '"':
        text_ += "\\\"";
        break;
      case '\\':
        text_ += "\\\\";
        break;
      case '\b':
        text_ += "\\b";
        break;
      case '\f':
        text_ += "\\f";
        break;
      case '\n':
        text_ += "\\n";
        break;
      case '\r':
        text_ += "\\r";
        break;
      case '\t':
        text_ += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          text_ += "\\u00";
          text_ += hex[static_cast<unsigned char>(c) >> 4];
          text_ += hex[c & 15];
        } else {
          text_ += c;
        }
      }
    }
    text_ += '"';
  }

  void put_object(const Object& object) {
    text_ += '{';
    ++level_;
    bool first = true;
    for (const auto& member : object) {
      if (!first)
        text_ += ',';
      first = false;
      new_line();
      put_string(member.first);
      text_ += formatted_ ? ": " : ":";
      put(member.second);
    }
    --level_;
    if (!first)
      new_line();
    text_ += '}';
  }

  void put_array(const Array& array) {
    text_ += '[';
    ++level_;
    bool first = true;
    for (const Value& item : array) {
      if (!first)
        text_ += ',';
      first = false;
      new_line();
      put(item);
    }
    --level_;
    if (!first)
      new_line();
    text_ += ']';
  }

  void new_line() {
    if (formatted_) {
      text_ += '\n';
      text_.append(level_ * 2, ' ');
    }
  }

  bool formatted_;
  size_t level_ = 0;
  std::string text_;
};

std::string repair_utf8(const std::string& text) {
  const unsigned char* at = reinterpret_cast<const unsigned char*>(text.data());
  const unsigned char* const end = at + text.size();
  std::string repaired;
  repaired.reserve(text.size());
  while (at != end) {
    const size_t length = utf8_length(at, end);
    if (length == 0) {
      repaired += "\xEF\xBF\xBD";
      ++at;
    } else {
      repaired.append(reinterpret_cast<const char*>(at), length);
      at += length;
    }
  }
  return repaired;
}

} // namespace

std::string write(const Value& value) {
  Writer writer(false);
  writer.put(value);
  return std::move(writer.text());
}

std::string write_formatted(const Value& value) {
  Writer writer(true);
  writer.put(value);
  return std::move(writer.text());
}

// Everything outside strings is ASCII, so the whole text can be repaired at once.
std::string write_utf8(const Value& value) {
  return repair_utf8(write(value));
}

} // namespace json_spirit
