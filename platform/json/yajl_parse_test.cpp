#include "sdk/json/yajl_handler.h"
#include "sdk/json/yajl_writer.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

/// Writes down what it is told.
class Recorder : public YAJL_Handler {
public:
  bool handle_null_i() override { return add("null"); }
  bool handle_boolean_i(bool value) override { return add(value ? "true" : "false"); }
  bool handle_integer_i(long long) override { return add("integer!"); }
  bool handle_double_i(double) override { return add("double!"); }
  bool handle_number_i(const char* text, unsigned length) override { return add("n:" + std::string(text, length)); }
  bool handle_string_i(const char* text, unsigned length) override { return add("s:" + std::string(text, length)); }
  bool handle_start_map_i() override { return add("{"); }
  bool handle_map_key_i(const char* text, unsigned length) override { return add("k:" + std::string(text, length)); }
  bool handle_end_map_i() override { return add("}"); }
  bool handle_start_array_i() override { return add("["); }
  bool handle_end_array_i() override { return add("]"); }

  std::string seen;
  std::string stop_at;

private:
  bool add(const std::string& event) {
    seen += event + " ";
    return event != stop_at;
  }
};

TEST(Yajl_Parse, events_come_in_order_and_numbers_as_text) {
  Recorder recorder;
  std::string error;
  ASSERT_TRUE(yajl_parse("{\"a\":[1,-2.5e3,\"x\",true,false,null],\"b\":{}}", recorder, error)) << error;
  EXPECT_EQ("{ k:a [ n:1 n:-2.5e3 s:x true false null ] k:b { } } ", recorder.seen);
}

TEST(Yajl_Parse, huge_number_reaches_the_handler_whole) {
  Recorder recorder;
  std::string error;
  ASSERT_TRUE(yajl_parse("[123456789012345678901234567890]", recorder, error));
  EXPECT_EQ("[ n:123456789012345678901234567890 ] ", recorder.seen);
}

TEST(Yajl_Parse, handler_that_refuses_stops_the_parse) {
  Recorder recorder;
  recorder.stop_at = "n:2";
  std::string error;
  EXPECT_FALSE(yajl_parse("[1,2,3]", recorder, error));
  EXPECT_EQ("[ n:1 n:2 ", recorder.seen);
  EXPECT_EQ(0u, error.find("stopped by the handler at byte "));
}

TEST(Yajl_Parse, text_that_ends_too_early_or_goes_on_is_refused) {
  std::string error;
  for (const char* text : {"", "[", "{\"a\":1", "\"abc", "[1] 2"}) {
    Recorder recorder;
    EXPECT_FALSE(yajl_parse(text, recorder, error)) << text;
    EXPECT_NE(std::string::npos, error.find(" at byte ")) << error;
  }
}

TEST(Yajl_Parse, lone_number_at_the_end_of_the_text_is_seen) {
  Recorder recorder;
  std::string error;
  ASSERT_TRUE(yajl_parse("12", recorder, error));
  EXPECT_EQ("n:12 ", recorder.seen);
}

TEST(Yajl_Parse, handler_that_throws_is_a_failed_parse) {
  class Thrower : public YAJL_Handler {
    bool handle_start_map_i() override { throw std::runtime_error("no maps here"); }
    bool handle_null_i() override { throw 5; }
  } thrower;
  std::string error;
  EXPECT_FALSE(yajl_parse("[{}]", thrower, error));
  EXPECT_EQ(0u, error.find("no maps here at byte "));
  EXPECT_FALSE(yajl_parse("[null]", thrower, error));
  EXPECT_EQ(0u, error.find("unknown exception at byte "));
}

TEST(Yajl_Parse, base_handler_accepts_everything) {
  YAJL_Handler handler;
  std::string error;
  EXPECT_TRUE(yajl_parse("{\"a\":[1,\"x\",true,null,{}]}", handler, error)) << error;
}

TEST(Yajl_Generate, record_writes_itself) {
  struct Record {
    int generate(yajl_gen_t* gen) {
      yajl_gen_map_open(gen);
      yajl_write(gen, "name");
      yajl_write(gen, "a\"b");
      yajl_gen_map_close(gen);
      return 0;
    }
  } record;
  EXPECT_EQ("{\"name\":\"a\\\"b\"}", yajl_generate(record));
}

} // namespace
