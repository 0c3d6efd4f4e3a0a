#pragma once

#include "sdk/json/yajl_handler.h"
#include "sdk/json/yajl_writer.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

/// What the tests of the definition parsers share.
namespace definition_testing {

/// A parser with the text that it has read.
template <typename PARSER, typename RECORD>
struct Parsed {
  explicit Parsed(const std::string& text) : accepted(yajl_parse(text, parser, reason)), kept(parser.result()) {}

  const RECORD& record() const { return static_cast<const RECORD&>(*kept); }
  RECORD& record() { return static_cast<RECORD&>(*kept); }

  PARSER parser;
  std::string reason;
  bool accepted;
  typename PARSER::Result kept;
};

inline bool key(YAJL_Handler& handler, const char* text) {
  return handler.handle_map_key_i(text, static_cast<unsigned>(std::strlen(text)));
}
inline bool string(YAJL_Handler& handler, const char* text) {
  return handler.handle_string_i(text, static_cast<unsigned>(std::strlen(text)));
}
inline bool number(YAJL_Handler& handler, const char* text) {
  return handler.handle_number_i(text, static_cast<unsigned>(std::strlen(text)));
}

/// Every parser refuses a key and an end where nothing is open.
template <typename PARSER>
void expect_error_3_without_an_open_container() {
  {
    PARSER parser;
    EXPECT_FALSE(key(parser, "id"));
    EXPECT_EQ(3, parser.err());
  }
  {
    PARSER parser;
    EXPECT_FALSE(parser.handle_end_map_i());
    EXPECT_EQ(3, parser.err());
  }
  PARSER parser;
  EXPECT_FALSE(parser.handle_end_array_i());
  EXPECT_EQ(3, parser.err());
}

} // namespace definition_testing
