#include "sdk/json/json_spirit.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>

using namespace json_spirit;

namespace {

Value parsed(const std::string& text) {
  Value value;
  std::string error;
  EXPECT_TRUE(read(text, value, &error)) << text << ": " << error;
  return value;
}

std::string refused(const std::string& text) {
  Value value("untouched");
  std::string error;
  EXPECT_FALSE(read(text, value, &error)) << text;
  EXPECT_EQ(Value("untouched"), value);
  return error;
}

TEST(Json_Value, kinds_are_told_apart) {
  EXPECT_EQ(null_type, Value().type());
  EXPECT_EQ(null_type, Value(static_cast<const char*>(nullptr)).type());
  EXPECT_EQ(str_type, Value("x").type());
  EXPECT_EQ(bool_type, Value(true).type());
  EXPECT_EQ(int_type, Value(1).type());
  EXPECT_EQ(int_type, Value(1ull).type());
  EXPECT_EQ(real_type, Value(1.0).type());
  EXPECT_EQ(obj_type, Value(Object()).type());
  EXPECT_EQ(array_type, Value(Array()).type());
}

TEST(Json_Value, getter_of_another_type_throws_and_says_both) {
  try {
    Value(5).get_str();
    FAIL() << "nothing was thrown";
  } catch (const Type_Error& e) {
    EXPECT_STREQ("value is integer, not string", e.what());
  }
  EXPECT_THROW(Value("5").get_int(), Type_Error);
  EXPECT_THROW(Value().get_obj(), Type_Error);
  EXPECT_THROW(Value(Object()).get_array(), Type_Error);
  EXPECT_THROW(Value(1).get_bool(), Type_Error);
  EXPECT_THROW(Value(1.5).get_int64(), Type_Error);
  EXPECT_THROW(Value("1").get_real(), Type_Error);
}

TEST(Json_Value, integer_that_does_not_fit_the_asked_width_throws) {
  EXPECT_EQ(std::numeric_limits<int>::min(), Value(-2147483648LL).get_int());
  EXPECT_THROW(Value(2147483648LL).get_int(), Type_Error);
  EXPECT_THROW(Value(-1).get_uint64(), Type_Error);
  EXPECT_EQ(18446744073709551615ull, Value(18446744073709551615ull).get_uint64());
  EXPECT_THROW(Value(18446744073709551615ull).get_int64(), Type_Error);
  EXPECT_EQ(7, Value(7ull).get_int64());
}

TEST(Json_Value, copies_are_deep_and_moves_leave_null) {
  Value a(Object{{"list", Array{1, 2}}});
  Value b(a);
  b.get_obj()["list"].get_array().push_back(3);
  EXPECT_EQ(2u, a.get_obj()["list"].get_array().size());
  const Value c(std::move(a));
  EXPECT_TRUE(a.is_null());
  EXPECT_EQ(2u, find(c.get_obj(), "list")->get_array().size());
}

TEST(Json_Value, part_of_a_value_can_take_the_whole_ones_place) {
  Value value = parsed("{\"a\":{\"b\":[1]}}");
  value = Value(value.get_obj()["a"]);
  EXPECT_EQ("{\"b\":[1]}", write(value));
  value = std::move(value.get_obj()["b"]);
  EXPECT_EQ("[1]", write(value));
  value = value.get_array()[0];
  EXPECT_EQ(1, value.get_int());
  Value& same = value;
  value = same;
  EXPECT_EQ(1, value.get_int());
}

TEST(Json_Value, numbers_are_equal_whichever_way_they_were_given) {
  EXPECT_EQ(Value(5), Value(5ull));
  EXPECT_EQ(Value(5ull), Value(5));
  EXPECT_NE(Value(-1), Value(18446744073709551615ull));
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value("1"));
}

TEST(Json_Value, members_are_found_required_or_taken_as_empty) {
  const Object object{{"s", "text"}, {"n", 1}};
  EXPECT_EQ(nullptr, find(object, "x"));
  EXPECT_EQ("text", require_str(object, "s"));
  EXPECT_EQ("", optional_str(object, "n"));
  EXPECT_EQ("", optional_str(object, "x"));
  EXPECT_THROW(require_str(object, "n"), Type_Error);
  try {
    require_str(object, "secret_key");
    FAIL() << "nothing was thrown";
  } catch (const Type_Error& e) {
    EXPECT_NE(nullptr, strstr(e.what(), "'secret_key'"));
  }
}

TEST(Json_Read, whole_numbers_keep_every_digit_of_64_bits) {
  EXPECT_EQ(std::numeric_limits<long long>::min(), parsed("-9223372036854775808").get_int64());
  EXPECT_FALSE(parsed("9223372036854775807").is_uint64());
  EXPECT_TRUE(parsed("9223372036854775808").is_uint64());
  EXPECT_EQ(18446744073709551615ull, parsed("18446744073709551615").get_uint64());
  EXPECT_EQ(real_type, parsed("18446744073709551616").type());
  EXPECT_EQ(real_type, parsed("-9223372036854775809").type());
  EXPECT_EQ(0, parsed("-0").get_int());
}

TEST(Json_Read, fraction_or_exponent_makes_a_real) {
  EXPECT_EQ(real_type, parsed("1.0").type());
  EXPECT_DOUBLE_EQ(1e3, parsed("1e3").get_real());
  EXPECT_DOUBLE_EQ(-2.5e-3, parsed("-2.5E-3").get_real());
  EXPECT_DOUBLE_EQ(3, parsed("3").get_real());
}

TEST(Json_Read, number_outside_a_reals_range_is_zero_or_refused) {
  EXPECT_EQ(0.0, parsed("1e-400").get_real());
  EXPECT_EQ(0.0, parsed("-0." + std::string(400, '0') + "1").get_real());
  EXPECT_EQ(0.0, parsed("1e-99999999999999999999").get_real());
  EXPECT_NE(std::string::npos, refused("1e400").find("out of range"));
  EXPECT_NE(std::string::npos, refused("1e99999999999999999999").find("out of range"));
  EXPECT_NE(std::string::npos, refused("1" + std::string(400, '0') + ".5e-1").find("out of range"));
  EXPECT_NE(std::string::npos, refused("[" + std::string(400, '9') + "]").find("out of range"));
}

TEST(Json_Read, bytes_that_are_no_utf8_come_through_unchanged) {
  const std::string bytes = "\xFF\xC3(\x80\xED\xA0\x80";
  const Value value = parsed("{\"" + bytes + "\":\"" + bytes + "\"}");
  EXPECT_EQ(bytes, require_str(value.get_obj(), bytes.c_str()));
  EXPECT_EQ("{\"" + bytes + "\":\"" + bytes + "\"}", write(value));
}

TEST(Json_Read, escapes_give_their_characters) {
  EXPECT_EQ(std::string("\"\\/\b\f\n\r\t\0A\xC3\xA9\xF0\x9F\x98\x80", 16),
            parsed("\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u0000\\u0041\\u00e9\\ud83d\\ude00\"").get_str());
}

TEST(Json_Read, last_of_two_equal_keys_wins) {
  EXPECT_EQ("{\"a\":2}", write(parsed("{\"a\":1,\"a\":2}")));
  EXPECT_EQ("{\"a\":{}}", write(parsed("{\"a\":{\"b\":1},\"a\":{}}")));
}

TEST(Json_Read, nesting_is_bounded) {
  const size_t deep = 512;
  EXPECT_EQ(array_type, parsed(std::string(deep, '[') + std::string(deep, ']')).type());
  EXPECT_NE(std::string::npos,
            refused(std::string(deep + 1, '[') + std::string(deep + 1, ']')).find("nested deeper than 512"));
  refused(std::string(1000000, '['));
}

TEST(Json_Read, broken_text_is_refused_with_the_byte) {
  EXPECT_NE(std::string::npos, refused("{\"a\": tru }").find(" at byte 9"));
  EXPECT_NE(std::string::npos, refused("[1,2").find(" at byte 4"));
  EXPECT_NE(std::string::npos, refused("").find(" at byte 0"));
  EXPECT_NE(std::string::npos, refused("[1] x").find("at byte"));
  for (const char* text :
       {" ",  "{",  "}",   "[1,]", "{\"a\"}", "{\"a\":}",  "{a:1}",   "{1:2}", "'a'",           "01",      "1.",
        ".5", "+1", "nul", "\"",   "\"\\x\"", "\"\\u12\"", "[1] [2]", "NaN",   "// comment\n1", "\"a\nb\""})
    EXPECT_NE("", refused(text));
  EXPECT_NE("", refused(std::string("\0", 1)));
  EXPECT_NE("", refused(std::string("[\0]", 3)));
}

TEST(Json_Read, error_text_is_optional) {
  Value value;
  EXPECT_FALSE(read("[", value));
  EXPECT_TRUE(read("[]", value));
}

TEST(Json_Write, text_is_the_shortest_and_reads_back_equal) {
  const std::string text = "{\"a\":[1,-2,18446744073709551615,1.5,true,false,null,\"x\"],\"b\":{}}";
  EXPECT_EQ(text, write(parsed(" { \"b\" : { } , \"a\" : [ 1 , -2 , 18446744073709551615, 1.50, true,false, null,"
                               "\"x\" ] } ")));
  EXPECT_EQ(parsed(text), parsed(write(parsed(text))));
}

TEST(Json_Write, real_stays_a_real_and_keeps_its_value) {
  EXPECT_EQ("1.0", write(Value(1.0)));
  EXPECT_EQ("0.1", write(Value(0.1)));
  for (const double number : {1e300, -1e-300, 0.1 + 0.2, 123456789012345680.0, -0.0}) {
    const Value back = parsed(write(Value(number)));
    EXPECT_EQ(real_type, back.type()) << write(Value(number));
    EXPECT_EQ(number, back.get_real());
  }
  EXPECT_EQ("null", write(Value(std::numeric_limits<double>::infinity())));
  EXPECT_EQ("null", write(Value(std::numeric_limits<double>::quiet_NaN())));
}

TEST(Json_Write, control_characters_and_quotes_are_escaped) {
  EXPECT_EQ("\"\\u0000\\u0001\\u001F\\n\\t\\\"\\\\/\x7F\"", write(Value(std::string("\0\x01\x1F\n\t\"\\/\x7F", 9))));
}

TEST(Json_Write, every_byte_reads_back_as_it_was) {
  std::string bytes;
  for (int i = 0; i < 256; ++i)
    bytes += static_cast<char>(i);
  EXPECT_EQ(bytes, parsed(write(Value(bytes))).get_str());
}

TEST(Json_Write, value_deeper_than_any_reader_takes_is_written_whole) {
  Value value(1);
  for (int i = 0; i < 600; ++i)
    value = Array{std::move(value)};
  EXPECT_EQ(std::string(600, '[') + "1" + std::string(600, ']'), write(value));
}

TEST(Json_Write, formatted_text_is_indented_by_two) {
  EXPECT_EQ("{\n  \"a\": [\n    1,\n    2\n  ],\n  \"b\": {}\n}", write_formatted(parsed("{\"a\":[1,2],\"b\":{}}")));
}

TEST(Json_Write, utf8_text_replaces_bytes_that_are_none) {
  const char* const R = "\xEF\xBF\xBD";
  const std::string r(R);
  const auto repaired = [](const std::string& text) { return write_utf8(Value(text)); };
  EXPECT_EQ("\"h\xC3\xB6 \xE2\x82\xAC \xF0\x9F\x98\x80\"", repaired("h\xC3\xB6 \xE2\x82\xAC \xF0\x9F\x98\x80"));
  EXPECT_EQ("\"a" + r + "b\"", repaired("a\xFF"
                                        "b"));
  EXPECT_EQ("\"" + r + "\"", repaired("\xC3"));
  EXPECT_EQ("\"" + r + r + "\"", repaired("\xE2\x82"));
  EXPECT_EQ("\"" + r + r + "\"", repaired("\xC0\x80"));
  EXPECT_EQ("\"" + r + r + r + "\"", repaired("\xED\xA0\x80"));
  EXPECT_EQ("\"" + r + r + r + r + "\"", repaired("\xF4\x90\x80\x80"));
  EXPECT_EQ("\"" + r + r + r + "\"", repaired("\xE0\x9F\x80"));
}

} // namespace
