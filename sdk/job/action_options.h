#pragma once

#include "sdk/json/json_spirit.h"

/// What a job's run is told by the request that started it, as the work sees it: by name. The same type as
/// Job_Run_Options, under which the request itself carries them.
typedef json_spirit::Object Action_Options;
