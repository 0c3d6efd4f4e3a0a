#include "agent/commands/diagnosis.h"

#include "agent/entry.h"

#include "platform/s3/diagnosis.h"

#include <algorithm>

namespace {

s3::Diagnosis look_at(const Account& account) {
  s3::Diagnosis_Options options;
  options.service = account_service_options(account);
  options.settings = Endpoint_Settings::get(options.service.host, options.service.port, options.service.access_key);
  // What an earlier look found out may not hold any more.
  options.settings.addressing = Endpoint_Settings::read_addressing(account.addressing);
  options.settings.list_version = Endpoint_Settings::read_list_version(account.list_version);
  options.settings.url_encoding = Endpoint_Settings::read_url_encoding(account.url_encoding);
  options.buckets = account.buckets;
  return s3::diagnose(options);
}

/// Keeps what was found out; what was not found out this time stays as it was.
void keep(Store& store, Account& account, const s3::Diagnosis& diagnosis) {
  bool changed = false;
  const auto take = [&](const std::string& found, std::string& kept) {
    if (found.empty() || found == kept)
      return;
    kept = found;
    changed = true;
  };
  take(diagnosis.addressing, account.found_addressing);
  take(diagnosis.list_version, account.found_list_version);
  take(diagnosis.url_encoding, account.found_url_encoding);
  std::string error;
  if (changed && !store.update_account(account, error))
    throw Command_Error(error);
}

/// The module's answer to "obs.test".
json_spirit::Object ask_module(Context& context, const Account& account) {
  json_spirit::Object params = account_attributes(account);
  params["buckets"] = json_spirit::Array(account.buckets.begin(), account.buckets.end());
  JSON_RPC_Request request("obs.test", params, 1);
  JSON_RPC_Object_var reply;
  if (context.rpc().request(request, reply) != 0)
    throw Command_Error("the module does not answer");
  if (reply->type() != JSON_RPC_Object::TYPE_RESPONSE) {
    const auto* refused = dynamic_cast<const JSON_RPC_Error_Response*>(reply.get());
    throw Command_Error("account '" + account.name + "': " + (refused ? refused->message() : "no answer"));
  }
  return dynamic_cast<JSON_RPC_Response&>(*reply).result().get_obj();
}

json_spirit::Array checks_json(const s3::Diagnosis& diagnosis) {
  json_spirit::Array array;
  for (const s3::Check& check : diagnosis.checks) {
    json_spirit::Object json;
    json["check"] = check.name;
    json["state"] = s3::text_of(check.state);
    json["fault"] = check.fault;
    json["tried"] = check.tried;
    json["found"] = check.found;
    json["advice"] = check.advice;
    array.push_back(json);
  }
  return array;
}

std::string padded(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

Lines checks_text(const s3::Diagnosis& diagnosis) {
  Lines text;
  for (const s3::Check& check : diagnosis.checks) {
    text.add(padded(s3::text_of(check.state), 9) + padded(check.name, 13) + check.tried +
             (check.tried.empty() ? "" : ": ") + check.found);
    if (!check.advice.empty())
      text.add(std::string(22, ' ') + "to do: " + check.advice);
  }
  return text;
}

} // namespace

void test_account(Context& context, const std::string& name) {
  Account account = context.account(name);
  context.module();
  const s3::Diagnosis diagnosis = look_at(account);
  keep(context.store(), account, diagnosis);
  json_spirit::Object result;
  // Nobody there talks as a service does: asking once more would only take time.
  if (diagnosis.unreachable()) {
    result["available"] = false;
    result["message"] = diagnosis.failure()->found;
  } else {
    result = ask_module(context, account);
  }
  const bool available = result.at("available").get_bool();
  Lines text("account '" + account.name + "' is " +
             (available ? "available" : "not available: " + json_spirit::optional_str(result, "message")));
  if (const json_spirit::Value* found = json_spirit::find(result, "buckets"))
    for (const json_spirit::Value& bucket : found->get_array())
      text.add("  " + json_spirit::optional_str(bucket.get_obj(), "name") + "  " +
               json_spirit::optional_str(bucket.get_obj(), "ctime") + "  " +
               json_spirit::optional_str(bucket.get_obj(), "location"));
  text.add("");
  text.append(checks_text(diagnosis));
  result["diagnosis"] = checks_json(diagnosis);
  result["found"] = found_json(account);
  context.print(result, text);
  context.exit_code = available && diagnosis.good() ? EXIT_COMPLETED : EXIT_FAILED;
}
