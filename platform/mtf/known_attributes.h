#pragma once

#include "sdk/mtf/file_attributes.h"

// What the engine has to know of attributes, which are the resource's own otherwise, to tell what a set goes without.

/// Whether they say that there are tags, which nobody asked for.
bool has_tags_not_saved(const MTF::File_Attributes& attributes);
/// Whether `before` has an access list that gives rights to others than the owner, and `now` has none.
bool lost_access_list(const MTF::File_Attributes& before, const MTF::File_Attributes& now);
