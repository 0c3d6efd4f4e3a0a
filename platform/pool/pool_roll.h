#pragma once

#include "platform/pool/pool.h"
#include "platform/pool/set_roll.h"

#include <string>
#include <vector>

class Store;

// The roll of sets of a pool in a folder, see set_roll.h. A pool of an earlier version has none, and gets one with the
// next change. Where the agent's database knows that there was one, or a newer one, what is there is not taken for it:
// the doubt is written into the next one and stays until an operator trusts the pool as it is.
//
// Whoever changes something has locked the pool. Any thread.

/// The folders in which sets may lie, as URIs.
std::vector<std::string> set_places(const Pool& pool);

/// Compares the sets that were found, whose records' files have the hashes `texts`, with the pool's roll. One whose
/// record is not the one that the pool's own agents wrote is taken out of `found`. One that the roll does not know
/// stays, but replaces nothing. Both are named in `errors`, and so is a roll that cannot be trusted.
void compare_roll(const Pool& pool, const std::vector<std::string>& texts, std::vector<Set_Record>& found,
                  std::vector<std::string>& errors);
/// Whether the roll knows a set and says that its record's file has another hash than `text`.
bool is_another_on_roll(const Pool& pool, const std::string& uuid, const std::string& text);
/// Names the sets that are on the roll and no longer in the pool, although nobody has removed them.
std::vector<std::string> sets_taken_away(const Pool& pool);

/// Writes the record of a set, new or again, and puts it on the roll: either neither is there afterwards or both are,
/// also when this is cut short anywhere. False with the reason.
bool commit_set_record(const Pool& pool, const Set_Record& record, std::string& error);
/// Says on the roll that these sets are going to be removed; to be followed by `settle_removals` when they were. False
/// with the reason: nothing may be removed then. On a full disk nothing is said, and true, as removing makes room.
bool announce_removals(const Pool& pool, const std::vector<std::string>& uuids, std::string& error);
/// Takes those of them off the roll that are not there any more. False with the reason.
bool settle_removals(const Pool& pool, const std::vector<std::string>& uuids, std::string& error);

/// Removes what a process that was killed while it wrote the roll left beside it.
void remove_torn_roll(const Pool& pool);
/// Makes the roll anew of what is in the pool now. False with the reason: a record that cannot be read, or no key.
bool trust_pool(const Pool& pool, std::string& error);
/// Forgets what is known of the roll of a pool that is known here no more. False with the reason.
bool forget_known_roll(Store& store, const std::string& pool_uuid, std::string& error);
