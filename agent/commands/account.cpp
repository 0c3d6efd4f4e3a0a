#include "agent/commands/commands.h"
#include "agent/entry.h"

#include "platform/crypto/secret.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

namespace {

struct Account_Arguments {
  std::string name;
  std::string endpoint;
  std::string access_key;
  std::string secret_key_file;
  std::string region;
  std::string vendor;
  std::string sign_method = "v4";
  std::string addressing = "auto";
  std::string ca_file;
  std::vector<std::string> buckets;
};

/// Reads the secret key from a file, or from standard input for "-"; a line end behind it does not count.
std::string read_secret(const std::string& path) {
  std::string secret;
  if (path == "-") {
    secret.assign(std::istreambuf_iterator<char>(std::cin), {});
  } else {
    std::ifstream file(path, std::ios::binary);
    if (!file)
      throw Command_Error("the secret key file '" + path + "' cannot be read: " + std::strerror(errno));
    secret.assign(std::istreambuf_iterator<char>(file), {});
  }
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r'))
    secret.pop_back();
  if (secret.empty())
    throw Command_Error("the secret key " + (path == "-" ? std::string("on standard input") : "in '" + path + "'") +
                        " is empty");
  return secret;
}

void add(Context& context, const Account_Arguments& arguments) {
  Account account;
  std::string error;
  if (!split_endpoint_url(arguments.endpoint, account.scheme, account.endpoint, error))
    throw Command_Error("endpoint '" + arguments.endpoint + "': " + error);
  account.uuid = make_uuid();
  account.name = arguments.name;
  account.access_key = arguments.access_key;
  account.region = arguments.region;
  account.vendor = arguments.vendor;
  account.sign_method = arguments.sign_method;
  account.addressing = arguments.addressing;
  if (!arguments.ca_file.empty()) {
    std::unique_ptr<char, void (*)(void*)> path(realpath(arguments.ca_file.c_str(), nullptr), std::free);
    if (!path)
      throw Command_Error("the CA file '" + arguments.ca_file + "' cannot be read: " + std::strerror(errno));
    account.ca_file = path.get();
  }
  account.buckets = arguments.buckets;
  const std::string secret = read_secret(arguments.secret_key_file);
  Store& store = context.store();
  if (!seal_secret(secret, account.secret_key, error) || !store.add_account(account, error))
    throw Command_Error(error);
  json_spirit::Object json;
  json["uuid"] = account.uuid;
  json["name"] = account.name;
  context.print(json, "account '" + account.name + "' added");
}

json_spirit::Object account_json(const Account& account) {
  json_spirit::Object json;
  json["uuid"] = account.uuid;
  json["name"] = account.name;
  json["endpoint"] = account.scheme + "://" + account.endpoint;
  json["access_key"] = account.access_key;
  json["region"] = account.region;
  json["vendor"] = account.vendor;
  json["sign_method"] = account.sign_method;
  json["addressing"] = account.addressing;
  json["ca_file"] = account.ca_file;
  json_spirit::Array buckets;
  for (const std::string& bucket : account.buckets)
    buckets.push_back(bucket);
  json["buckets"] = buckets;
  return json;
}

void list(Context& context) {
  std::vector<Account> accounts;
  std::string error;
  if (!context.store().accounts(accounts, error))
    throw Command_Error(error);
  json_spirit::Array array;
  std::string text;
  for (const Account& account : accounts) {
    array.push_back(account_json(account));
    text += account.name + "  " + account.scheme + "://" + account.endpoint + "  " + account.access_key + "\n";
  }
  json_spirit::Object json;
  json["accounts"] = array;
  context.print(json, text);
}

void show(Context& context, const std::string& name) {
  const json_spirit::Object json = account_json(context.account(name));
  context.print(json, json_spirit::write_formatted(json));
}

void test(Context& context, const std::string& name) {
  const Account account = context.account(name);
  JSON_RPC_Channel& rpc = context.rpc();
  json_spirit::Object params = account_attributes(account);
  json_spirit::Array buckets;
  for (const std::string& bucket : account.buckets)
    buckets.push_back(bucket);
  params["buckets"] = buckets;

  JSON_RPC_Request request("obs.test", params, 1);
  JSON_RPC_Object_var reply;
  if (rpc.request(request, reply) != 0)
    throw Command_Error("the module does not answer");
  if (reply->type() != JSON_RPC_Object::TYPE_RESPONSE) {
    const auto* refused = dynamic_cast<const JSON_RPC_Error_Response*>(reply.get());
    throw Command_Error("account '" + name + "': " + (refused ? refused->message() : "no answer"));
  }
  const json_spirit::Object result = dynamic_cast<JSON_RPC_Response&>(*reply).result().get_obj();
  const bool available = result.at("available").get_bool();
  std::string text = "account '" + name + "' is " + (available ? "available" : "not available");
  if (!available)
    text += ": " + json_spirit::optional_str(result, "message");
  if (const json_spirit::Value* found = json_spirit::find(result, "buckets"))
    for (const json_spirit::Value& bucket : found->get_array())
      text += "\n  " + json_spirit::optional_str(bucket.get_obj(), "name") + "  " +
              json_spirit::optional_str(bucket.get_obj(), "ctime") + "  " +
              json_spirit::optional_str(bucket.get_obj(), "location");
  context.print(result, text);
  context.exit_code = available ? EXIT_COMPLETED : EXIT_FAILED;
}

void remove(Context& context, const std::string& name) {
  const Account account = context.account(name);
  std::string error;
  if (!context.store().remove_account(account.uuid, error))
    throw Command_Error(error);
  context.print(json_spirit::Object(), "account '" + account.name + "' removed");
}

} // namespace

void add_account_commands(CLI::App& app, Context& context) {
  CLI::App* account = app.add_subcommand("account", "Object-storage accounts");
  account->require_subcommand(1);

  auto arguments = std::make_shared<Account_Arguments>();
  CLI::App* command = account->add_subcommand("add", "Add an account");
  command->add_option("name", arguments->name, "Name to call it by")->required()->type_name("NAME");
  command->add_option("--endpoint", arguments->endpoint, "http:// or https:// URL of the service")
      ->required()
      ->type_name("URL");
  command->add_option("--access-key", arguments->access_key, "Access key id")->required()->type_name("KEY");
  command->add_option("--secret-key-file", arguments->secret_key_file, "File with the secret key; -: standard input")
      ->required()
      ->type_name("FILE");
  command->add_option("--region", arguments->region, "Region to sign for");
  command->add_option("--vendor", arguments->vendor, "Vendor of the service");
  command->add_option("--sign-method", arguments->sign_method, "v4 or v2")
      ->check(CLI::IsMember({"v4", "v2"}))
      ->capture_default_str();
  command->add_option("--addressing", arguments->addressing, "auto, path or virtual")
      ->check(CLI::IsMember({"auto", "path", "virtual"}))
      ->capture_default_str();
  command->add_option("--ca-file", arguments->ca_file, "PEM file with the CA that signed the service's certificate")
      ->type_name("FILE");
  command->add_option("--bucket", arguments->buckets, "A bucket that jobs may use; none: all of the account")
      ->allow_extra_args(false)
      ->type_name("BUCKET");
  command->callback([&context, arguments] { add(context, *arguments); });

  account->add_subcommand("list", "List the accounts")->callback([&context] { list(context); });
  auto name = std::make_shared<std::string>();
  const auto named = [&](const char* verb, const char* help, void (*work)(Context&, const std::string&)) {
    CLI::App* one = account->add_subcommand(verb, help);
    one->add_option("name", *name, "Account")->required()->type_name("NAME");
    one->callback([&context, name, work] { work(context, *name); });
  };
  named("show", "Show an account; its secret key is never shown", show);
  named("test", "Test whether an account can be reached", test);
  named("remove", "Forget an account", remove);
}
