#pragma once

#include "agent/context.h"
#include "sdk/s3/s3_service.h"

/// The attributes of an account as the module's requests take them ("scheme", "endpoint", keys ...), its secret key
/// opened, and what else belongs to its endpoint registered. Throws Command_Error when the key cannot be opened.
json_spirit::Object account_attributes(const Account& account);

/// What a test of the account found out where a setting says "auto", by the setting's name.
json_spirit::Object found_json(const Account& account);

/// How the account's service is reached, with what else belongs to its endpoint registered. Throws Command_Error.
S3_Service_Options account_service_options(const Account& account);

/// A service for the account, for what the program itself asks. Throws Command_Error.
S3_Service_var make_account_service(const Account& account);
