#pragma once

#include "sdk/json/json_spirit.h"

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

/// The array "extended_attrs"."buckets" of an account's record, which says to which buckets the account is confined;
/// null when it is missing, empty or no array. Valid while `entry` is unchanged.
const json_spirit::Array* configured_buckets(const json_spirit::Object& entry);
