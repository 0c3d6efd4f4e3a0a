#pragma once

#include "sdk/rpc/json_rpc.h"

struct Account;
class Store;

/// Answers "obs.query" {"uuid"} with the account of that uuid: "uuid", "name", "scheme", "endpoint", "access_key",
/// "secret_key" (sealed), "region", "vendor", "sign_method", "extended_attrs" {"buckets"}. Registers the endpoint's
/// settings (addressing, TLS, time-outs and the like) on the way, so that whatever connects for the account finds them.
/// Errors: -32602 for parameters without a uuid or an unknown one, -32603 when the store cannot be read. Any thread.
class Entry_Query_Handler : public JSON_RPC_Handler {
public:
  static constexpr const char* METHOD = "obs.query";
  /// Asks `store`, which outlives the handler.
  explicit Entry_Query_Handler(Store& store) : store_(store) {}
  ~Entry_Query_Handler() override;
  int handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override;

private:
  Store& store_;
};

/// The record of an account as "obs.query" answers it.
json_spirit::Object entry_record(const Account& account);
/// Registers how the account's endpoint is reached (Endpoint_Settings). False when its endpoint is no host.
bool register_endpoint(const Account& account);
