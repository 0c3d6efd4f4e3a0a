#include "platform/file_backup/set_catalog.h"
#include "platform/mtf/partial_sets.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/set_keys.h"
#include "sdk/file_backup/file_backup.h"

#include <ace/Log_Msg.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace {

bool read_media(const json_spirit::Array& json, std::vector<Set_Record::Medium>& media) {
  try {
    for (const json_spirit::Value& value : json) {
      const json_spirit::Object& object = value.get_obj();
      const json_spirit::Value* size = json_spirit::find(object, "size");
      const json_spirit::Value* family = json_spirit::find(object, "family");
      if (size == nullptr || family == nullptr)
        return false;
      Set_Record::Medium& medium = media.emplace_back();
      medium.name = json_spirit::require_str(object, "name");
      medium.size = size->get_uint64();
      medium.family = static_cast<unsigned>(family->get_uint64());
    }
    return true;
  } catch (const json_spirit::Type_Error&) {
    return false;
  }
}

/// A set is whole only with its media.
bool media_are_there(const std::string& folder, const std::vector<Set_Record::Medium>& media, std::string& error) {
  for (const Set_Record::Medium& medium : media) {
    const std::string path = folder + "/" + medium.name;
    struct stat status;
    if (!find_pool_file(path, status)) {
      error = "medium " + path + ": " + std::strerror(errno);
      return false;
    }
    if (static_cast<unsigned long long>(status.st_size) != medium.size) {
      error = "medium " + path + " has " + std::to_string(status.st_size) + " bytes instead of " +
              std::to_string(medium.size);
      return false;
    }
  }
  return true;
}

Set_Record make_record(const file_backup::File_Backup_Set& set) {
  const file_backup::File_Metadata& metadata = set.metadata;
  Set_Record record = describe_set(metadata);
  record.uuid = set.uuid;
  record.uri = metadata.set_uri;
  record.incarnation = set.incarnation;
  // The set before it in the chain is none of its bases where that could not be opened: then nothing was compared.
  if (!set.bases.empty() && !metadata.base_uuid.empty())
    record.bases.push_back(metadata.base_uuid);
  record.seq = set.seq;
  record.channels = metadata.channels;
  record.end_time = metadata.end_time;
  record.source_size = metadata.source_size;
  record.backup_set_size = metadata.backup_set_size;
  record.backup_set_storage_size = metadata.backup_set_storage_size;
  read_media(metadata.media, record.media);
  record.figures = metadata.figures;
  return record;
}

/// The engine gives a set a number that is free, and it stands on the media. One that is taken all the same, as the
/// engine may not have known the store's sets, is no other set's afterwards. `begins`: the set begins a chain.
bool choose_seq(Store& store, const std::string& pool_uuid, bool begins, Set_Record& record, std::string& error) {
  Set_Numbers numbers;
  if (!numbers_in_use(store, pool_uuid, record.minor_resource_id, record.uuid, numbers, error))
    return false;
  if (!numbers.is_taken(record.seq))
    return true;
  record.seq = begins ? numbers.first_of_chain() : numbers.behind(record.seq);
  if (record.seq == 0)
    error = Set_Numbers::NONE_FREE;
  return record.seq != 0;
}

bool commit_i(const file_backup::File_Backup_Set& set, bool online, std::string& error) {
  Store* const store = Store::instance();
  if (store == nullptr) {
    error = "the agent's database is not open";
    return false;
  }
  const std::string& pool_uuid = set.metadata.pool_uuid;
  Set_Record record = make_record(set);
  Pool pool;
  if (!open_known_pool(*store, pool_uuid, pool, error) ||
      !choose_seq(*store, pool_uuid, set.bases.empty(), record, error))
    return false;
  Set_Cipher_ptr cipher;
  if (!open_set_cipher(pool, record.uuid, set.metadata.data_key, cipher, error) || !seal_record(cipher, record, error))
    return false;
  const std::string folder = pool.set_folder(record.uri);
  if (!media_are_there(folder, record.media, error) || !commit_set_record(pool, record, error))
    return false;
  Set row = set_from_record(record, pool_uuid);
  row.state = online ? Set::STATE_ONLINE : "offline";
  if (!store->put_set(row, error))
    return false;
  // What unfinished runs left and this set does not point into is of no use any more.
  std::string why;
  if (!reclaim_partial_sets(pool, record.uri.substr(0, record.uri.rfind('/')), nullptr, why))
    ACE_ERROR((LM_WARNING, ACE_TEXT("What an unfinished run left stays until the next one: %C.\n"), why.c_str()));
  return true;
}

} // namespace

namespace file_backup {

int build_file_catalog(const File_Metadata& metadata, File_Backup_Set& set) {
  std::vector<Set_Record::Medium> media;
  if (metadata.uuid.empty() || metadata.pool_uuid.empty() || metadata.set_uri.empty() ||
      metadata.minor_resource_id.empty() || metadata.seq == 0 || metadata.channels == 0 ||
      !read_media(metadata.media, media) || media.size() < metadata.channels)
    return -1;
  set.uuid = metadata.uuid;
  set.seq = metadata.seq;
  set.metadata = metadata;
  return 0;
}

} // namespace file_backup

Catalog_Operator::Catalog_Operator(int, int) {}

bool Catalog_Operator::commit(const file_backup::Backup_Set& set, bool online) {
  const auto* const file_set = dynamic_cast<const file_backup::File_Backup_Set*>(&set);
  std::string error;
  if (file_set == nullptr)
    error = "it is no set of files";
  else if (commit_i(*file_set, online, error))
    return true;
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to commit set '%C': %C.\n"), set.uuid.c_str(), error.c_str()));
  return false;
}
