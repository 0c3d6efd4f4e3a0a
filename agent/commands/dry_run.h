#pragma once

#include "agent/context.h"

/// Lists what a backup of the selection would take in, without reading or writing anything: a line per object and a
/// sum, as text or as JSON. Asks the module, page by page.
void dry_run(Context& context, const Account& account, const Selection& selection);
