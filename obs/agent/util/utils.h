#pragma once

#include "sdk/json/json_spirit.h"
#include "sdk/s3/s3_types.h"

#include <memory>
#include <string>

class S3_Service_Base;

/// Fetches the record of the object-storage account `uuid` by the request "obs.query" and puts the plain secret key
/// in the place of the encrypted one. A failed request is repeated with growing waits until these add up to
/// `max_wait_seconds` (0: one attempt, -1: no bound). False, after a log line, on failure; `entry` is then not to be
/// used. Any thread; blocks the calling one while it waits.
bool get_entry_info(const std::string& uuid, json_spirit::Object& entry, int max_wait_seconds);

/// A service for the account, from its record as `get_entry_info` leaves it. Empty, after a log line, when the record
/// lacks something or its endpoint makes no URI. No request is sent.
std::shared_ptr<S3_Service_Base> make_client(const json_spirit::Object& entry);

/// What clients for an account need beside the job.
struct Client_Entry {
  std::string url; ///< "scheme://endpoint"
  S3_Client_Options options;
};
/// The same from the account's record as `get_entry_info` leaves it. Throws json_spirit::Type_Error when that lacks
/// something.
Client_Entry client_entry(const json_spirit::Object& entry, int max_retry_seconds);

/// The array "extended_attrs"."buckets" of an account's record, which says to which buckets the account is confined;
/// null when it is missing, empty or no array. Valid while `entry` is unchanged.
const json_spirit::Array* configured_buckets(const json_spirit::Object& entry);
