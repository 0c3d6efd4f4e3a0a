#include "agent/entry.h"

#include "platform/crypto/secret.h"
#include "platform/file_backup/entry_query_handler.h"
#include "sdk/base/uri.h"

json_spirit::Object account_attributes(const Account& account) {
  json_spirit::Object attributes = entry_record(account);
  std::string plain;
  std::string error;
  if (!open_secret(account.secret_key, plain, error))
    throw Command_Error("the secret key of account '" + account.name + "' cannot be opened: " + error);
  attributes["secret_key"] = plain;
  register_endpoint(account);
  return attributes;
}

json_spirit::Object found_json(const Account& account) {
  json_spirit::Object found;
  if (!account.found_addressing.empty())
    found["addressing"] = account.found_addressing;
  if (!account.found_list_version.empty())
    found["list_version"] = account.found_list_version;
  if (!account.found_url_encoding.empty())
    found["url_encoding"] = account.found_url_encoding;
  return found;
}

S3_Service_Options account_service_options(const Account& account) {
  const json_spirit::Object attributes = account_attributes(account);
  URI uri;
  if (!URI_Parser::parse((account.scheme + "://" + account.endpoint).c_str(), uri))
    throw Command_Error("the endpoint of account '" + account.name + "' is no host: '" + account.endpoint + "'");
  S3_Service_Options options;
  options.type = uri.scheme();
  options.host = uri.host();
  options.port = uri.port();
  options.ssl = uri.is_ssl();
  options.access_key = account.access_key;
  options.secret_key = json_spirit::require_str(attributes, "secret_key");
  options.region = account.region;
  options.vendor = account.vendor;
  options.sign_method = account.sign_method;
  return options;
}

S3_Service_var make_account_service(const Account& account) {
  S3_Service_var service = make_s3_service(account_service_options(account));
  if (!service)
    throw Command_Error("the attributes of account '" + account.name + "' make no client");
  return service;
}
