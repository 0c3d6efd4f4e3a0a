#include "obs/agent/job/async_obs_source_lister.h"

#include "obs/agent/job/async_obs_object_lister.h"
#include "obs/agent/job/catalog_blocks.h"
#include "obs/agent/util/obs_path.h"
#include "sdk/base/check.h"
#include "sdk/base/path.h"

#include <cerrno>
#include <exception>
#include <new>

namespace {

constexpr int RETRY_TIMEOUT = 300; // seconds of waiting after which a listing request is given up

/// "/bucket/key", as sources and reports name an object.
std::string join_path(const std::string& bucket, const std::string& key) {
  std::string path;
  path.reserve(bucket.size() + key.size() + 2);
  path += '/';
  path += bucket;
  path += '/';
  path += key;
  return path;
}

} // namespace

Async_OBS_Source_Lister::Async_OBS_Source_Lister(S3_Client& clt, unsigned short seq, std::list<std::string> srcs,
                                                 MTF::Event_Handler* evt_handler, const MTF::IFilter* filter,
                                                 int threads, unsigned long long cache_limit)
    : clt_(clt), srcs_(std::move(srcs)), seq_(seq), evt_handler_(evt_handler), filter_(filter), threads_(threads),
      cache_limit_(cache_limit) {}

Async_OBS_Source_Lister::~Async_OBS_Source_Lister() = default;

bool Async_OBS_Source_Lister::next(MTF::Cat_Blk&) {
  return false;
}

int Async_OBS_Source_Lister::generate(Handler handler) {
  CHECK_NULL_RETURN(handler, -1);
  try {
    return generate_i(handler);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to generate obs backup list: %s.\n"), e.what()));
    return -1;
  }
}

int Async_OBS_Source_Lister::generate_i(const Handler& handler) {
  if (srcs_.empty()) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("No backup source entries to list.\n")));
    return -1;
  }
  Blk_ptr vol = make_vol_blk();
  if (!vol || !handler(std::move(vol))) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to make vol block while generating obs backup list.\n")));
    return -1;
  }

  Async_OBS_Object_Lister lister(clt_, threads_, RETRY_TIMEOUT, cache_limit_, filter_);
  for (const std::string& src : srcs_) {
    OBS_Path path;
    if (!path.parse(src, false)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid obs entry: %s.\n"), src.c_str()));
      continue;
    }
    if (path.is_prefix()) {
      if (!list_prefix(lister, path.bucket_, path.object_, handler))
        return -1;
    } else if (!add_source_file(path.bucket_, path.object_, handler)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to add source entry '%s' to backup list.\n"), src.c_str()));
      return -1;
    }
    if (is_canceling())
      return -1;
  }
  return add_fend(handler) ? 0 : -1;
}

bool Async_OBS_Source_Lister::list_prefix(Async_OBS_Object_Lister& lister, const std::string& bucket,
                                          const std::string& prefix, const Handler& handler) {
  if (!lister.init(bucket, prefix)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to init async object lister.\n")));
    return false;
  }
  Object_Entry object;
  while (lister.next(object)) {
    if (!add_object(bucket, object.key, object.size, object.mtime, handler)) {
      lister.reset();
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to add '%s' in bucket '%s' to backup list.\n"), object.key.c_str(),
                 bucket.c_str()));
      return false;
    }
    if (is_canceling()) {
      lister.reset();
      return false;
    }
  }
  if (is_canceling())
    return false;
  if (lister.broken_off()) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("The listing of '%s/%s' broke off.\n"), bucket.c_str(), prefix.c_str()));
    return false;
  }
  return true;
}

bool Async_OBS_Source_Lister::is_canceling() const {
  return evt_handler_ != nullptr && evt_handler_->is_canceling();
}

Async_OBS_Source_Lister::Blk_ptr Async_OBS_Source_Lister::make_vol_blk() {
  return catalog_blocks::make_vol(seq_);
}

Async_OBS_Source_Lister::Blk_ptr Async_OBS_Source_Lister::make_dir_blk(const std::string& path) {
  return catalog_blocks::make_dir(seq_, path);
}

Async_OBS_Source_Lister::Blk_ptr
Async_OBS_Source_Lister::make_file_blk(const std::string& name, unsigned long long size, unsigned long long mtime) {
  Blk_ptr blk = catalog_blocks::make_file(seq_, name, size, mtime);
  if (blk && is_debug_enabled())
    ACE_DEBUG((LM_DEBUG, ACE_TEXT("OBS-Lister|FILE|%s.\n"), name.c_str()));
  return blk;
}

int Async_OBS_Source_Lister::add_object(const std::string& bucket, const std::string& key, unsigned long long size,
                                        unsigned long long mtime, const Handler& handler) {
  const std::string path = join_path(bucket, key);
  if (add_object_blks(path, size, mtime, handler))
    return 1;
  report_skipped(path, json_spirit::Value(), "Make MTF description block failed.");
  return 0;
}

bool Async_OBS_Source_Lister::add_object_blks(const std::string& path, unsigned long long size,
                                              unsigned long long mtime, const Handler& handler) {
  // The catalog's folders begin with the bucket, without the path's leading "/".
  const size_t dir_length = path.rfind('/');
  if (path.compare(1, dir_length, cur_dir_) != 0 && !set_dir(path.substr(1, dir_length), handler))
    return false;
  Blk_ptr blk = make_file_blk(path.substr(dir_length + 1), size, mtime);
  return blk && handler(std::move(blk));
}

bool Async_OBS_Source_Lister::set_dir(const std::string& dir, const Handler& handler) {
  if (dir == cur_dir_)
    return true;
  size_t at = MTF_FS::common_parent(cur_dir_, dir);
  while ((at = dir.find('/', at)) != std::string::npos) {
    ++at;
    Blk_ptr blk = make_dir_blk(dir.substr(0, at));
    if (!blk || !handler(std::move(blk)))
      return false;
  }
  cur_dir_ = dir;
  return true;
}

bool Async_OBS_Source_Lister::add_source_file(const std::string& bucket, const std::string& object,
                                              const Handler& handler) {
  const std::shared_ptr<S3_Service_Base> svr = clt_.make_service();
  S3_Object found;
  if (svr && svr->head_object(bucket.c_str(), object.c_str(), found) && found.exists)
    return add_object(bucket, object, found.size, found.mtime, handler) != 0;

  const std::string path = join_path(bucket, object);
  if (svr)
    report_skipped(path, svr->last_error().number(), svr->error());
  else
    report_skipped(path, json_spirit::Value(), "Failed to make obs client");
  return true;
}

bool Async_OBS_Source_Lister::add_fend(const Handler& handler) {
  Blk_ptr blk = catalog_blocks::make_fend();
  return blk && handler(std::move(blk));
}

void Async_OBS_Source_Lister::report_skipped(const std::string& path, const json_spirit::Value& number,
                                             const std::string& message) {
  if (evt_handler_ == nullptr)
    return;
  evt_handler_->add_skipped_files(1);
  evt_handler_->notify_event(MTF::EVENT_ITEM_ERROR,
                             {{"type", "file"}, {"name", path}, {"errno", number}, {"message", message}});
}
