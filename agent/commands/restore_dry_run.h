#pragma once

#include "agent/commands/restore_plan.h"
#include "agent/context.h"

/// Lists what a restore of the selection would write where, the selected names that the set does not have, the target
/// buckets that do not exist, and the collisions of the mapping. Nothing is written; of the target only its buckets are
/// asked for. The exit code is 1 where the restore would refuse to begin, 3 where it would leave something out.
void restore_dry_run(Context& context, const Account& account, Catalog_Reader& catalog,
                     const Catalog_Selection& selection, Restore_Plan& plan);
