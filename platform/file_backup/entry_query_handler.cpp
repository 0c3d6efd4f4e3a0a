#include "platform/file_backup/entry_query_handler.h"

#include "platform/file_backup/proxy_secret.h"
#include "platform/s3/endpoint_settings.h"
#include "platform/store/store.h"
#include "sdk/base/uri.h"

#include <ace/Log_Msg.h>

namespace {

constexpr int INVALID_REQUEST = -32600;
constexpr int INVALID_PARAMS = -32602;
constexpr int INTERNAL_ERROR = -32603;

} // namespace

json_spirit::Object entry_record(const Account& account) {
  json_spirit::Object attributes;
  attributes["buckets"] = json_spirit::Array(account.buckets.begin(), account.buckets.end());
  json_spirit::Object entry;
  entry["uuid"] = account.uuid;
  entry["name"] = account.name;
  entry["scheme"] = account.scheme;
  entry["endpoint"] = account.endpoint;
  entry["access_key"] = account.access_key;
  entry["secret_key"] = account.secret_key;
  entry["region"] = account.region;
  entry["vendor"] = account.vendor;
  entry["sign_method"] = account.sign_method;
  entry["extended_attrs"] = attributes;
  return entry;
}

bool register_endpoint(const Account& account) {
  URI uri;
  if (!URI_Parser::parse((account.scheme + "://" + account.endpoint).c_str(), uri)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("The endpoint of account '%C' is no host: '%C'.\n"), account.name.c_str(),
               account.endpoint.c_str()));
    return false;
  }
  Endpoint_Settings settings = Endpoint_Settings::get(uri.host(), uri.port(), account.access_key);
  const auto chosen = [](const std::string& asked, const std::string& found) -> const std::string& {
    return asked == "auto" ? found : asked;
  };
  const Endpoint_Settings defaults;
  settings.addressing = Endpoint_Settings::read_addressing(chosen(account.addressing, account.found_addressing));
  settings.list_version =
      Endpoint_Settings::read_list_version(chosen(account.list_version, account.found_list_version));
  settings.url_encoding =
      Endpoint_Settings::read_url_encoding(chosen(account.url_encoding, account.found_url_encoding));
  settings.payload_signing = Endpoint_Settings::read_payload_signing(account.payload_signing);
  settings.ca_file = account.ca_file;
  settings.client_cert = account.client_cert;
  settings.client_key = account.client_key;
  std::string error;
  if (!open_proxy(account.proxy, settings.proxy, error)) {
    // Never without it: what is sealed is no proxy's address, and every request fails at it.
    ACE_ERROR(
        (LM_ERROR, ACE_TEXT("The proxy of account '%C' cannot be opened: %C.\n"), account.name.c_str(), error.c_str()));
    settings.proxy = account.proxy;
  }
  settings.connect_timeout = account.connect_timeout ? account.connect_timeout : defaults.connect_timeout;
  settings.idle_timeout = account.idle_timeout ? account.idle_timeout : defaults.idle_timeout;
  settings.user_agent = account.user_agent;
  Endpoint_Settings::set(uri.host(), uri.port(), account.access_key, settings);
  return true;
}

Entry_Query_Handler::~Entry_Query_Handler() = default;

int Entry_Query_Handler::handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) {
  if (!channel || object.null())
    return -1;
  if (object->type() != JSON_RPC_Object::TYPE_REQUEST)
    return channel->send_error(INVALID_REQUEST, json_spirit::Value(), "obs.query must be a request",
                               json_spirit::Value());
  const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
  std::string uuid;
  if (request.params().type() == json_spirit::obj_type)
    uuid = json_spirit::optional_str(request.params().get_obj(), "uuid");
  if (uuid.empty())
    return channel->send_error(INVALID_PARAMS, request.id(), "obs.query needs the string \"uuid\"",
                               json_spirit::Value());
  Account account;
  bool found = false;
  std::string error;
  if (!store_.find_account(uuid, account, found, error)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to look up account '%C': %C.\n"), uuid.c_str(), error.c_str()));
    return channel->send_error(INTERNAL_ERROR, request.id(), error, json_spirit::Value());
  }
  if (!found) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("There is no account '%C'.\n"), uuid.c_str()));
    return channel->send_error(INVALID_PARAMS, request.id(), "there is no account '" + uuid + "'",
                               json_spirit::Value());
  }
  register_endpoint(account);
  return channel->send(count_references(std::make_unique<JSON_RPC_Response>(request.id(), entry_record(account))));
}
