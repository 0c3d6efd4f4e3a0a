#pragma once

#include "sdk/json/json_spirit.h"
#include "sdk/s3/s3_service.h"

#include <ace/Log_Msg.h>

#include <functional>

/// What the web services share.

enum JSON_RPC_Error_Code {
  RPC_FAILED = -1,
  RPC_INVALID_REQUEST = -32600,
  RPC_INVALID_PARAMS = -32602,
  RPC_INTERNAL_ERROR = -32603
};

/// Logs, at the caller's line, that a handler was given something else than a request.
#define LOG_NOT_A_REQUEST()                                                                                            \
  ACE_ERROR((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, obj is not JSON-RPC request!\n")))

/// The text member `key`; empty when it is missing or no text.
std::string text_param(const json_spirit::Object& params, const char* key);

/// True when the bucket counts as one of `region` (empty: any). Where the listing says nothing of the bucket's place
/// the service is asked, which fills `bucket.location`.
bool is_in_region(S3_Service_Base& service, S3_Bucket& bucket, const std::string& region);

/// Lists the account's buckets page by page, to the end or to the first page that fails, and hands each page on.
/// True when at least one page came.
bool for_each_service_page(S3_Service_Base& service, const std::function<void(Get_Service_Content&)>& handle_page);
