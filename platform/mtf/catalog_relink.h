#pragma once

#include "platform/pool/pool.h"
#include "platform/pool/set_keys.h"

#include <string>

// Catalogs that point into sets whose data a merge has moved. Work is done on a copy, which whoever asked for it puts
// in the catalog's place. One thread; the caller has locked the pool.

/// Makes the folder `work` and in it a copy of the catalog in `folder`, which `cipher` opens, that points into the
/// merged set where data lie there now. Both catalogs that this builds on are compared with their checks. False with
/// the reason; what is in `work` is then of no use.
bool relink_copy(const Pool& pool, const std::string& folder, const std::string& work, const Set_Cipher_ptr& cipher,
                 const Set_Record& merged, std::string& error);

/// Makes the catalog in the folder `work`, which nobody reads yet and which belongs to the set `uuid` of `place`, point
/// into the sets that merges there have put into the place of others since. False with the reason.
bool follow_merges(const Pool& pool, const std::string& place, const std::string& uuid, const std::string& work,
                   const Set_Cipher_ptr& cipher, std::string& error);
