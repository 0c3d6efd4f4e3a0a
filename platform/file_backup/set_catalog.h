#pragma once

#include "platform/pool/pool.h"
#include "platform/pool/set_numbers.h"
#include "platform/store/store.h"

#include <string>

/// The store's row of a set whose record lies in a pool.
Set set_from_record(const Set_Record& record, const std::string& pool_uuid);

/// Opens the pool of that uuid as the store knows it. False with the reason.
bool open_known_pool(Store& store, const std::string& pool_uuid, Pool& pool, std::string& error);

/// The numbers of all sets of a resource in a pool that the store knows, also of those that are gone, as they may come
/// back; but not of the set `uuid`. False with the reason.
bool numbers_in_use(Store& store, const std::string& pool_uuid, const std::string& minor_resource_id,
                    const std::string& uuid, Set_Numbers& numbers, std::string& error);

/// Makes the store agree with what lies in a pool, for one resource or, when `minor_resource_id` is empty, for all: a
/// set without row is taken up, a row whose set's record is no longer there is marked gone, one that came back is
/// online again. A record that cannot be read changes nothing and is logged. False with the reason when the pool or
/// the store cannot be read or written. `problems`, when given, gets what is wrong with the pool's sets and its roll.
bool reconcile_sets(Store& store, const std::string& pool_uuid, const std::string& minor_resource_id,
                    std::string& error, std::vector<std::string>* problems = nullptr);
