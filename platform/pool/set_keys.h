#pragma once

#include "platform/crypto/set_cipher.h"
#include "platform/pool/pool.h"

class Store;

// Where the keys of encrypted pools come from, and the ciphers of their sets. Any thread.

/// Lets this process use the pool's key until it ends.
void hold_pool_key(const std::string& pool_uuid, const Secret_Key& key);
/// Keeps the key in the agent's database too, sealed under the master key. False with the reason.
bool keep_pool_key(Store& store, const std::string& pool_uuid, const Secret_Key& key, std::string& error);
/// Takes it out of the database again. False with the reason.
bool forget_pool_key(Store& store, const std::string& pool_uuid, std::string& error);
/// The key of an encrypted pool: the one this process holds, else the one in the agent's database. False with the
/// reason, also when it turns out not to be this pool's.
bool find_pool_key(const Pool& pool, Secret_Key& key, std::string& error);

/// The cipher of a set that is there, whose record is `record`: null, and true, where the pool is not encrypted. False
/// with the reason: the key is not known, is another pool's, the set's data key is damaged, or a set that is not
/// encrypted lies in an encrypted pool.
bool open_set_cipher(const Pool& pool, const Set_Record& record, Set_Cipher_ptr& cipher, std::string& error);
/// The same from what a medium says about itself. An empty `wrapped` means a set that is not encrypted.
bool open_set_cipher(const Pool& pool, const std::string& set_uuid, const std::string& wrapped, Set_Cipher_ptr& cipher,
                     std::string& error);
/// A cipher with a new data key for a set that is to be written: null, and true, where the pool is not encrypted.
bool make_set_cipher(const Pool& pool, const std::string& set_uuid, Set_Cipher_ptr& cipher, std::string& error);

/// Seals what a record says about names (`name`, `minor_resource_name`, figures that are no numbers) into its member
/// `sealed`, and keeps the wrapped data key in it; in memory it stays readable. Call it before a new record is written;
/// nothing to do for a null cipher. False when the library fails.
bool seal_record(const Set_Cipher_ptr& cipher, Set_Record& record, std::string& error);
/// Reads those members from `sealed`. False with the reason.
bool open_record(const Set_Cipher& cipher, Set_Record& record, std::string& error);
