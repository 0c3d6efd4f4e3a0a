#pragma once

#include "platform/store/database.h"

/// SQLite's user version of the agent's database.
constexpr int STORE_SCHEMA_VERSION = 3;

/// Makes the tables in an empty database and brings an older one up to date, in one transaction; several processes may
/// try at once. False with the reason: no database of the agent, or written by a newer version.
bool bring_up_to_date(Store_Db& db, std::string& error);
