#include "platform/store/store.h"
#include "sdk/file_backup/file_backup.h"

#include <ace/Log_Msg.h>

namespace {

bool find_entry(const std::string& uuid, Pool_Entry& entry) {
  Store* const store = Store::instance();
  std::string error;
  bool found = false;
  if (store == nullptr)
    error = "the agent's database is not open";
  else if (store->find_pool(uuid, entry, found, error) && !found)
    error = "it is not known";
  if (found)
    return true;
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to look up pool '%C': %C.\n"), uuid.c_str(), error.c_str()));
  return false;
}

} // namespace

bool get_pool_info(const std::string& pool_uuid, const std::string& device_uuid, Pool_Info& info, bool, int,
                   const void*, bool, const void*, const void*, bool) {
  Pool_Entry entry;
  if (!find_entry(pool_uuid.empty() ? device_uuid : pool_uuid, entry))
    return false;
  info.uuid = entry.uuid;
  info.name = entry.name;
  info.location = entry.url;
  info.multidevice = false;
  info.encryption = entry.encrypt ? ENCRYPTION_AES_256_GCM : ENCRYPTION_NONE;
  return true;
}

bool get_url_by_pool_uuid(const std::string& pool_uuid, const void*, std::string& url, bool, const void*) {
  Pool_Entry entry;
  if (!find_entry(pool_uuid, entry))
    return false;
  url = entry.url;
  return true;
}

bool is_mtf_uri(const std::string& url) {
  return url.compare(0, 6, "mtf://") == 0 || url.compare(0, 7, "mtfs://") == 0;
}
