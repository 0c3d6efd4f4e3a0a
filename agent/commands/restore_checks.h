#pragma once

#include "agent/commands/restore_plan.h"
#include "agent/context.h"

/// Refuses, with what the set has instead, a map of a bucket that no selected object lies in. Throws Command_Error.
void refuse_idle_maps(const Restore_Plan& plan, const Bucket_Maps& maps);

/// Refuses, with what the set has instead, a path that selects nothing. Throws Command_Error.
void refuse_idle_paths(Catalog_Reader& catalog, const Catalog_Selection& selection);

/// Refuses to write over the places that the set's objects came from, unless `wanted` or somebody at a terminal says
/// yes. Throws Command_Error with the two ways to go on.
void refuse_in_place(Context& context, const Set& set, const Account& target, const Restore_Plan& plan, bool wanted);
