#pragma once

#include "sdk/job/action_handler.h"
#include "sdk/json/json_spirit.h"

#include <memory>
#include <string>
#include <unordered_set>

class Job_Definition;

/// Proves that the account of `entry` can be reached: at least one of `buckets` exists. With `buckets` empty it is
/// filled from the list of buckets that the account is confined to; where there is none either, one of all the
/// account's buckets has to exist. Names outside that list are refused before any request.
/// False with the reason, one line, in `error`. Logs nothing of its own.
bool try_connect(const json_spirit::Object& entry, std::unordered_set<std::string>& buckets, std::string& error);

/// A handler for the pre- and post-action of `def`, with no script where the definition has none. `log` receives the
/// scripts' output. Empty, with `errno` ENOMEM, when memory is short.
Action_Handler_var make_action_handler(const Job_Definition& def, std::shared_ptr<ACE_Log_Msg_Callback> log);
