#pragma once

#include <string>

class Pool;
class Store;

// What the agent's database knows of a pool, so that somebody who may write to the pool's folder cannot make it a
// weaker one: its file says itself whether what is put there is encrypted, and with which key. Any thread.

/// Compares a pool that is being opened with what is known of it, and keeps that where it is opened here for the first
/// time. True as well where no database is open. False with the reason: its encryption, its key, or its format, which
/// is older than it was.
bool check_known_pool(const Pool& pool, std::string& error);
/// Forgets what is known of a pool that is known here no more. False with the reason.
bool forget_known_pool(Store& store, const std::string& pool_uuid, std::string& error);
