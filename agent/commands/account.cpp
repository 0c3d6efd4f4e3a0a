#include "agent/commands/commands.h"
#include "agent/commands/diagnosis.h"
#include "agent/entry.h"

#include "platform/crypto/secret.h"
#include "platform/file_backup/proxy_secret.h"
#include "platform/s3/vendor_presets.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

namespace {

struct Account_Arguments {
  Account account;
  std::string endpoint;
  std::string secret_key_file;
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

/// The file's whole path; empty stays empty.
std::string whole_path(const char* what, const std::string& file) {
  if (file.empty())
    return file;
  const std::unique_ptr<char, void (*)(void*)> path(realpath(file.c_str(), nullptr), std::free);
  if (!path)
    throw Command_Error("the " + std::string(what) + " '" + file + "' cannot be read: " + std::strerror(errno));
  return path.get();
}

/// What of the arguments needs a look before it is stored.
void complete(Account& account, const Account_Arguments& arguments) {
  std::string error;
  if (!arguments.endpoint.empty() && !split_endpoint_url(arguments.endpoint, account.scheme, account.endpoint, error))
    throw Command_Error("endpoint '" + arguments.endpoint + "': " + error);
  if (!account.vendor.empty() && !vendor_preset(account.vendor)) {
    std::string names;
    for (const Vendor_Preset& preset : vendor_presets())
      names += (names.empty() ? "" : ", ") + std::string(preset.name);
    throw Command_Error("there is no preset for vendor '" + account.vendor + "': give one of " + names + ", or none");
  }
  account.ca_file = whole_path("CA file", account.ca_file);
  account.client_cert = whole_path("client certificate", account.client_cert);
  account.client_key = whole_path("client key", account.client_key);
  if (!seal_proxy(account.proxy, error))
    throw Command_Error("the proxy's password cannot be sealed: " + error);
  if (!account.client_key.empty() && account.client_cert.empty())
    throw Command_Error("a client key needs its certificate: give --client-cert");
  if (!arguments.secret_key_file.empty() &&
      !seal_secret(read_secret(arguments.secret_key_file), account.secret_key, error))
    throw Command_Error(error);
}

void add(Context& context, const Account_Arguments& arguments) {
  Store& store = context.store(); // with its key, which seals the secret
  Account account = arguments.account;
  account.uuid = make_uuid();
  complete(account, arguments);
  std::string error;
  if (!store.add_account(account, error))
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
  json["list_version"] = account.list_version;
  json["url_encoding"] = account.url_encoding;
  json["payload_signing"] = account.payload_signing;
  json["client_cert"] = account.client_cert;
  json["client_key"] = account.client_key;
  json["proxy"] = shown_proxy(account.proxy);
  json["connect_timeout"] = static_cast<int>(account.connect_timeout);
  json["idle_timeout"] = static_cast<int>(account.idle_timeout);
  json["user_agent"] = account.user_agent;
  json["found"] = found_json(account);
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
  Lines text;
  for (const Account& account : accounts) {
    array.push_back(account_json(account));
    text.add(account.name + "  " + account.scheme + "://" + account.endpoint + "  " + account.access_key);
  }
  json_spirit::Object json;
  json["accounts"] = array;
  context.print(json, text);
}

void show(Context& context, const std::string& name) {
  const json_spirit::Object json = account_json(context.account(name));
  Lines text;
  std::istringstream formatted(json_spirit::write_formatted(json));
  for (std::string line; std::getline(formatted, line);)
    text.add(line);
  context.print(json, text);
}

void remove(Context& context, const std::string& name) {
  const Account account = context.account(name);
  std::string error;
  if (!context.store().remove_account(account.uuid, error))
    throw Command_Error(error);
  context.print(json_spirit::Object(), "account '" + account.name + "' removed");
}

/// The options that both adding and changing an account take. `required`: those that an account cannot do without.
void add_options(CLI::App& command, Account_Arguments& arguments, bool required) {
  Account& account = arguments.account;
  command.add_option("--endpoint", arguments.endpoint, "http:// or https:// URL of the service")
      ->required(required)
      ->type_name("URL");
  command.add_option("--access-key", account.access_key, "Access key id")->required(required)->type_name("KEY");
  command.add_option("--secret-key-file", arguments.secret_key_file, "File with the secret key; -: standard input")
      ->required(required)
      ->type_name("FILE");
  command.add_option("--region", account.region, "Region to sign for");
  std::string vendors;
  for (const Vendor_Preset& preset : vendor_presets())
    vendors += (vendors.empty() ? "" : ", ") + std::string(preset.name);
  command.add_option("--vendor", account.vendor, "Preset for what the settings leave to auto: " + vendors);
  command.add_option("--sign-method", account.sign_method, "v4 or v2; none: the vendor's, else v4")
      ->check(CLI::IsMember({"v4", "v2"}));
  const auto choice = [&](const char* name, std::string& value, const char* help,
                          std::initializer_list<const char*> choices) {
    command.add_option(name, value, help)
        ->check(CLI::IsMember(std::vector<std::string>(choices.begin(), choices.end())))
        ->capture_default_str();
  };
  choice("--addressing", account.addressing, "Where buckets stand: in the path or before the host's name",
         {"auto", "path", "virtual"});
  choice("--list-version", account.list_version, "Version of listings to ask for", {"auto", "1", "2"});
  choice("--url-encoding", account.url_encoding,
         "Ask for listings with encoded keys; auto, here and above: as found out by \"account test\"",
         {"auto", "on", "off"});
  choice("--payload-signing", account.payload_signing, "Sign bodies; auto: where TLS does not cover them",
         {"auto", "on", "off"});
  command.add_option("--ca-file", account.ca_file, "PEM file with the CA that signed the service's certificate")
      ->type_name("FILE");
  command.add_option("--client-cert", account.client_cert, "PEM file with the certificate to show to the service")
      ->type_name("FILE");
  command.add_option("--client-key", account.client_key, "PEM file with its key, unless it stands in the same file")
      ->type_name("FILE");
  command.add_option("--proxy", account.proxy, "Proxy to go through; the environment's is never taken")
      ->type_name("URL");
  command.add_option("--connect-timeout", account.connect_timeout, "Seconds to connect in; 0: 10")
      ->check(CLI::Range(0, 3600));
  command
      .add_option("--idle-timeout", account.idle_timeout, "Seconds without a byte after which a transfer ends; 0: 60")
      ->check(CLI::Range(0, 3600));
  command.add_option("--user-agent", account.user_agent, "Name to go by; none: none is sent");
  command
      .add_option("--bucket", account.buckets,
                  "A bucket that jobs may use, all of the account unless given; may be repeated")
      ->allow_extra_args(false)
      ->type_name("BUCKET");
}

/// Takes over what was given on the command line.
void change(Context& context, const CLI::App& command, const Account_Arguments& arguments) {
  Account account = context.account(arguments.account.name);
  const Account& given = arguments.account;
  const auto take = [&](const char* option, auto Account::*member) {
    if (command.count(option) > 0)
      account.*member = given.*member;
    return command.count(option) > 0;
  };
  bool moved = command.count("--endpoint") > 0;
  take("--access-key", &Account::access_key);
  take("--region", &Account::region);
  moved = take("--vendor", &Account::vendor) || moved;
  moved = take("--sign-method", &Account::sign_method) || moved;
  moved = take("--addressing", &Account::addressing) || moved;
  moved = take("--list-version", &Account::list_version) || moved;
  moved = take("--url-encoding", &Account::url_encoding) || moved;
  take("--payload-signing", &Account::payload_signing);
  take("--ca-file", &Account::ca_file);
  take("--client-cert", &Account::client_cert);
  take("--client-key", &Account::client_key);
  take("--proxy", &Account::proxy);
  take("--connect-timeout", &Account::connect_timeout);
  take("--idle-timeout", &Account::idle_timeout);
  take("--user-agent", &Account::user_agent);
  take("--bucket", &Account::buckets);
  if (moved) {
    account.found_addressing.clear();
    account.found_list_version.clear();
    account.found_url_encoding.clear();
  }
  complete(account, arguments);
  std::string error;
  if (!context.store().update_account(account, error))
    throw Command_Error(error);
  context.print(account_json(account), "account '" + account.name + "' changed");
}

} // namespace

void add_account_commands(CLI::App& app, Context& context) {
  CLI::App* account = app.add_subcommand("account", "Object-storage accounts");
  account->require_subcommand(1);

  auto arguments = std::make_shared<Account_Arguments>();
  CLI::App* command = account->add_subcommand("add", "Add an account");
  command->add_option("name", arguments->account.name, "Name to call it by")->required()->type_name("NAME");
  add_options(*command, *arguments, true);
  command->callback([&context, arguments] { add(context, *arguments); });

  auto changes = std::make_shared<Account_Arguments>();
  CLI::App* other = account->add_subcommand("change", "Change an account's settings; the others stay as they are");
  other->add_option("name", changes->account.name, "Account")->required()->type_name("NAME");
  add_options(*other, *changes, false);
  other->callback([&context, changes, other] { change(context, *other, *changes); });

  account->add_subcommand("list", "List the accounts")->callback([&context] { list(context); });
  auto name = std::make_shared<std::string>();
  const auto named = [&](const char* verb, const char* help, void (*work)(Context&, const std::string&)) {
    CLI::App* one = account->add_subcommand(verb, help);
    one->add_option("name", *name, "Account")->required()->type_name("NAME");
    one->callback([&context, name, work] { work(context, *name); });
  };
  named("show", "Show an account; its secret key is never shown", show);
  named("test", "Look at an account step by step: what works, what does not, and what to do", test_account);
  named("remove", "Forget an account", remove);
}
