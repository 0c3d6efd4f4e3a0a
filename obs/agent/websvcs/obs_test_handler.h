#pragma once

#include "sdk/rpc/json_rpc.h"

/// Tests the settings of an object-storage account before they are saved.
///
/// Params: the account's record with the plain secret key, "region" (none: every region), "buckets" (names to check;
/// none: the account's buckets are listed). Result: "available", "message" where it is false, and the listed
/// "buckets". Keeps no state between requests; several threads may call it at once.
class JSON_RPC_OBS_Test_Handler : public JSON_RPC_Thread_Handler {
public:
  JSON_RPC_OBS_Test_Handler() = default;
  ~JSON_RPC_OBS_Test_Handler() override;

  /// What sending the answer returned; -1 without an answer when `object` is no request.
  int handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override;
};
