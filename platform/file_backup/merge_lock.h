#pragma once

#include <string>

/// The folder that a merge of a resource's sets locks (Set_Lock) for as long as it rewrites them:
/// "POOL/.merging/RESOURCE". Empty for a resource id that is no plain name.
std::string merge_lock_folder(const std::string& pool_folder, const std::string& minor_resource_id);
