#pragma once

#include "sdk/rpc/json_rpc.h"

/// Browses an object-storage account: its buckets, or one level of the folders and objects in a bucket.
///
/// Params: "uuid" (or "host_uuid") of the account, "path" ("/bucket/prefix"; none: the buckets), "limit" and "marker"
/// for pages of objects. Result: "result" (array of {"dir"} or {"file", "size", "mtime"}), "truncated", and "marker"
/// where there is more. Keeps no state between requests; several threads may call it at once.
class JSON_RPC_OBS_List_Handler : public JSON_RPC_Thread_Handler {
public:
  JSON_RPC_OBS_List_Handler() = default;
  ~JSON_RPC_OBS_List_Handler() override;

  /// What sending the answer returned; -1 without an answer when `object` is no request.
  int handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override;
};
