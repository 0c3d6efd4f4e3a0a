#include "fuzz/fuzz_target.h"

#include "obs/agent/job/backup_job_options_parser.h"
#include "obs/agent/job/backup_job_source_parser.h"
#include "obs/agent/job/restore_job_options_parser.h"
#include "obs/agent/job/restore_job_source_parser.h"
#include "platform/file_backup/glob_filter.h"
#include "sdk/base/uri.h"
#include "sdk/json/json_spirit.h"
#include "sdk/rpc/json_rpc.h"

#include <ace/Log_Msg.h>

// JSON from others: the reader, the writer, the module's parsers of job definitions, messages over an in-process
// channel, and the rules and URIs that definitions hold.

namespace {

template <typename PARSER>
void define(const std::string& text) {
  PARSER parser;
  std::string error;
  if (!yajl_parse(text, parser, error) && error.empty())
    fuzz_fail("a definition is refused without a reason");
  parser.result();
}

bool is_utf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const size_t more = c < 0x80                ? 0
                        : c >= 0xC2 && c < 0xE0 ? 1
                        : c >= 0xE0 && c < 0xF0 ? 2
                        : c >= 0xF0 && c < 0xF5 ? 3
                                                : 9;
    if (more == 9 || text.size() - i <= more)
      return false;
    for (size_t k = 1; k <= more; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
        return false;
    i += more + 1;
  }
  return true;
}

/// Answers with what it was asked.
class Echo : public JSON_RPC_Handler {
public:
  int handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override {
    const auto& request = static_cast<const JSON_RPC_Request&>(*object);
    return channel->send(
        count_references(std::make_unique<JSON_RPC_Response>(request.id(), json_spirit::Value(request.params()))));
  }
};

void message(const json_spirit::Value& value) {
  static Echo echo;
  static In_Process_JSON_RPC_Channel channel;
  static const bool routed = (channel.route("echo", &echo), true);
  if (!routed || value.type() != json_spirit::obj_type)
    return;
  const json_spirit::Object& object = value.get_obj();
  const json_spirit::Value* params = json_spirit::find(object, "params");
  const json_spirit::Value* id = json_spirit::find(object, "id");
  const JSON_RPC_Request request(json_spirit::optional_str(object, "method"), params ? *params : json_spirit::Value(),
                                 id ? *id : json_spirit::Value());
  JSON_RPC_Object_var reply;
  if (channel.request(request, reply) != 0)
    return;
  if (reply->type() == JSON_RPC_Object::TYPE_RESPONSE &&
      static_cast<JSON_RPC_Response&>(*reply).result() != request.params())
    fuzz_fail("an answer changes on its way");
}

void rules(const json_spirit::Value& value) {
  if (value.type() == json_spirit::str_type) {
    const std::string& text = value.get_str();
    URI uri;
    URI_Parser::parse(text.c_str(), uri);
    Glob_Rule rule;
    std::string error;
    if (rule.compile(text, error)) {
      rule.match("/bucket/a/b.txt", 15);
      rule.match(text.data(), text.size());
    }
  } else if (value.type() == json_spirit::array_type) {
    for (const json_spirit::Value& one : value.get_array())
      rules(one);
  } else if (value.type() == json_spirit::obj_type) {
    for (const auto& member : value.get_obj())
      rules(member.second);
  }
}

} // namespace

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {"{",
                                                 "}",
                                                 "[",
                                                 "]",
                                                 ":",
                                                 ",",
                                                 "\"\"",
                                                 "null",
                                                 "true",
                                                 "false",
                                                 "-9223372036854775808",
                                                 "18446744073709551615",
                                                 "1e308",
                                                 "0.1",
                                                 "\\u0000",
                                                 "\\ud800",
                                                 "\\udc00",
                                                 "\"id\":",
                                                 "\"name\":",
                                                 "\"catalog_id\":",
                                                 "\"backup_minor_resource_id\":",
                                                 "\"backup_host_id\":",
                                                 "\"backup_definition_id\":",
                                                 "\"pool_uuid\":",
                                                 "\"seq\":",
                                                 "\"entries\":",
                                                 "\"dir\":",
                                                 "\"file\":",
                                                 "\"bucket_maps\":",
                                                 "\"source\":",
                                                 "\"target\":",
                                                 "\"prefix\":",
                                                 "\"existing\":",
                                                 "\"standalone\":",
                                                 "\"cache_dir\":",
                                                 "\"channels\":",
                                                 "\"compression\":",
                                                 "\"compression_level\":",
                                                 "\"exclusion\":",
                                                 "\"inclusion\":",
                                                 "\"list_cache_limits\":",
                                                 "\"scan_file_threads\":",
                                                 "\"minor_resource_id\":",
                                                 "\"minor_resource_name\":",
                                                 "\"method\":\"echo\"",
                                                 "\"params\":",
                                                 "**/",
                                                 "*",
                                                 "?",
                                                 "http://",
                                                 "/bucket/"};
  return words;
}

void fuzz_one(std::string_view input) {
  // What is wrong with a definition goes to the log, a line for every input.
  static const u_long quiet = ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);
  static_cast<void>(quiet);
  const std::string text(input);
  define<OBS_Backup_Job_Options_Parser>(text);
  define<OBS_Backup_Job_Source_Parser>(text);
  define<OBS_Restore_Job_Options_Parser>(text);
  define<OBS_Restore_Job_Source_Parser>(text);

  json_spirit::Value value;
  std::string error;
  if (!json_spirit::read(text, value, &error)) {
    if (error.empty())
      fuzz_fail("a text is refused without a reason");
    return;
  }
  const std::string written = json_spirit::write(value);
  json_spirit::Value again;
  if (!json_spirit::read(written, again, &error))
    fuzz_fail("what was written cannot be read: " + error);
  if (json_spirit::write(again) != written)
    fuzz_fail("a value changes by being written and read");
  if (!json_spirit::read(json_spirit::write_formatted(value), again, &error) || json_spirit::write(again) != written)
    fuzz_fail("a value changes by being written over several lines");
  if (!is_utf8(json_spirit::write_utf8(value)))
    fuzz_fail("a text for others is not UTF-8");
  message(value);
  rules(value);
}
