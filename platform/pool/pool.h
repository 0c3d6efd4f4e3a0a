#pragma once

#include "platform/pool/pool_key.h"
#include "platform/pool/process_lock.h"
#include "platform/pool/set_lock.h"
#include "platform/pool/set_record.h"

#include <memory>
#include <string>
#include <vector>

/// A pool in a folder of this machine, "file:///DIR":
///
///     pool.json                              uuid, format version, encryption, the locked key
///     HOST/RESOURCE/ACTIVITY/set.json        a set exists when this does
///     HOST/RESOURCE/ACTIVITY/catalog.db
///     HOST/RESOURCE/ACTIVITY/channel-NNNN.mtf
///     HOST/RESOURCE/ACTIVITY/partial.json    instead of set.json: what an unfinished run left whole
///
/// A value; any thread.
class Pool {
public:
  /// Makes a pool in an empty or missing folder, or one in which that was cut short. False with the reason (not a file
  /// URL, not empty, not writable, another process is making one there).
  static bool create(const std::string& url, const std::string& uuid, std::string& error);
  /// The same for an encrypted pool, whose key is made here and locked with `secret`.
  static bool create(const std::string& url, const std::string& uuid, const Pool_Secret& secret,
                     const Scrypt_Cost& cost, Secret_Key& key, std::string& error);
  /// Opens one. False with the reason: no pool there, not readable, a newer format, `uuid` (when not empty) is not the
  /// pool's, or the pool is not what the agent knows it to be (check_known_pool).
  static bool open(const std::string& url, const std::string& uuid, Pool& pool, std::string& error);

  const std::string& uuid() const { return uuid_; }
  const std::string& folder() const { return folder_; }
  /// Whether what is in it is encrypted. The key then comes from `unlock`, or from find_pool_key.
  bool encrypted() const { return encrypted_; }
  unsigned format() const { return format_; }
  /// 16 hexadecimal digits that tell the pool's key from others; empty for a plain pool.
  const std::string& key_check() const { return key_check_; }
  /// Unlocks the key of an encrypted pool. False with the reason, which tells a wrong secret from damage.
  bool unlock(const Pool_Secret& secret, Secret_Key& key, std::string& error) const;
  /// Locks the pool's key with another secret; the file is as before or as after. What is in the pool stays as it is.
  /// The caller has locked the pool.
  bool relock(const Secret_Key& key, const Pool_Secret& secret, const Scrypt_Cost& cost, std::string& error);
  std::string set_folder(const std::string& uri) const { return folder_ + "/" + uri; }

  /// Records of all sets below `prefix` ("" for all, "HOST", "HOST/RESOURCE"), oldest first. Folders without a record
  /// are no sets; unreadable records are named in `errors`. Names in records of an encrypted pool are empty when its
  /// key is not known here.
  std::vector<Set_Record> sets(const std::string& prefix, std::vector<std::string>& errors) const;
  /// Records of the sets there that a merged set has replaced and that are not dropped yet: they are none of the pool's
  /// sets any more.
  std::vector<Set_Record> replaced_sets(const std::string& prefix) const;
  /// Records of the partial sets there, newest first.
  std::vector<Set_Record> partial_sets(const std::string& prefix, std::vector<std::string>& errors) const;
  /// Locks the pool against other processes that would change it, and removes what a killed one left of the pool's
  /// file. Null with a message that names who has it.
  std::shared_ptr<Process_Lock> lock(std::string& error) const;
  /// Makes the folder of a new set. False with the reason, also when it exists.
  bool make_set_folder(const std::string& uri, std::string& error) const;
  /// The same, and locks it for the calling run before anybody can take it for left over.
  bool make_set_folder(const std::string& uri, Set_Lock& lock, std::string& error) const;
  /// Folders under "HOST/RESOURCE" that hold no record of a set or partial set, as URIs: what unfinished runs left, and
  /// what runs that are going on have made so far.
  std::vector<std::string> unfinished(const std::string& prefix) const;
  /// Locks "HOST/RESOURCE", so that no run begins there. Waits for whoever has it, see Set_Lock.
  bool lock_place(const std::string& prefix, Set_Lock& lock, std::string& error) const;
  /// Locks such a folder. False when a living process has it (`error` empty), when it has become a set meanwhile or is
  /// gone (the same), or when it cannot be locked. `place` is that of its "HOST/RESOURCE", where the caller holds it.
  bool lock_unfinished(const std::string& uri, Set_Lock& lock, std::string& error,
                       const Set_Lock* place = nullptr) const;
  /// Removes those that no living process has locked. Returns how many; `error` says what could not be removed.
  unsigned remove_unfinished(const std::string& prefix, std::string& error) const;
  /// Removes a set, a partial set or an unfinished one: at once as far as anybody looks for it, then its files.
  bool remove_set(const std::string& uri, std::string& error) const;
  /// Ends removals at "HOST/RESOURCE" that were cut short. The caller has locked the pool.
  bool finish_removals(const std::string& prefix, std::string& error) const;

private:
  std::vector<Set_Record> read_sets(const std::string& prefix, bool replaced, std::vector<std::string>& errors) const;
  bool make_set_folder_i(const std::string& uri, Set_Lock* lock, std::string& error) const;

  std::string uuid_;
  std::string folder_;
  bool encrypted_ = false;
  unsigned format_ = 1;
  std::string key_check_;
  json_spirit::Object locked_key_;
};
