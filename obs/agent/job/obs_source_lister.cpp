#include "obs/agent/job/obs_source_lister.h"

#include "obs/agent/job/catalog_blocks.h"
#include "obs/agent/util/obs_path.h"
#include "sdk/base/check.h"
#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"
#include "sdk/base/path.h"

#include <cerrno>
#include <exception>
#include <new>

namespace {

constexpr unsigned RETRY_SLOT = 1;
constexpr unsigned RETRY_CAP = 3;
constexpr int MAX_ATTEMPTS = 4;
constexpr unsigned MAX_WAIT = 10;     // seconds of waiting for one page
constexpr size_t PATH_RESERVE = 1089; // "/", a bucket name of 63 bytes, "/" and a key of 1024

} // namespace

OBS_Source_Lister::OBS_Source_Lister(std::shared_ptr<S3_Service_Base> svr, unsigned short seq,
                                     std::list<std::string> srcs, MTF::Event_Handler* evt_handler,
                                     const MTF::IFilter* filter)
    : svr_(std::move(svr)), srcs_(std::move(srcs)), seq_(seq), evt_handler_(evt_handler), filter_(filter) {}

OBS_Source_Lister::~OBS_Source_Lister() = default;

bool OBS_Source_Lister::next(MTF::Cat_Blk& blk) {
  CHECK_NULL_RETURN(svr_, false);
  try {
    return next_i(blk);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list objects: %s.\n"), e.what()));
    return false;
  }
}

bool OBS_Source_Lister::next_i(MTF::Cat_Blk& blk) {
  if (pop_block(blk))
    return true;
  if (!start_vol_) {
    start_vol_ = add_vol_blk(blk);
    return start_vol_;
  }
  if (end_)
    return false;
  if (cur_bucket_.empty() && srcs_.empty()) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("No source entries to list.\n")));
    return false;
  }
  while (!pop_block(blk)) {
    if (!list_objects()) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list objects.\n")));
      return false;
    }
  }
  return true;
}

bool OBS_Source_Lister::pop_block(MTF::Cat_Blk& blk) {
  if (blocks_.empty())
    return false;
  blk = std::move(*blocks_.front());
  blocks_.pop_front();
  return true;
}

bool OBS_Source_Lister::add_vol_blk(MTF::Cat_Blk& blk) {
  catalog_blocks::Blk_ptr vol = catalog_blocks::make_vol(seq_);
  if (!vol)
    return false;
  blk = std::move(*vol);
  return true;
}

bool OBS_Source_Lister::add_dir_blk(const std::string& bucket, const std::string& prefix, size_t length) {
  try {
    catalog_blocks::Blk_ptr blk = catalog_blocks::make_dir(seq_, bucket + "/" + prefix.substr(0, length));
    if (!blk)
      return false;
    blocks_.push_back(std::move(blk));
    return true;
  } catch (const std::bad_alloc&) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to make dir block for '%s/%.*s'.\n"), bucket.c_str(),
               static_cast<int>(length), prefix.c_str()));
    return false;
  }
}

bool OBS_Source_Lister::add_file_blk(const std::string& key, unsigned long long size, unsigned long long mtime) {
  const std::string name = scrt::basename(key, '/');
  catalog_blocks::Blk_ptr blk = catalog_blocks::make_file(seq_, name, size, mtime);
  if (!blk)
    return false;
  if (is_debug_enabled())
    ACE_DEBUG(
        (LM_DEBUG, ACE_TEXT("OBS-Lister|FILE|%s/%s%s.\n"), cur_bucket_.c_str(), cur_prefix_.c_str(), name.c_str()));
  blocks_.push_back(std::move(blk));
  return true;
}

bool OBS_Source_Lister::add_fend() {
  cur_bucket_.clear();
  cur_prefix_.clear();
  marker_.clear();
  end_ = true;
  catalog_blocks::Blk_ptr blk = catalog_blocks::make_fend();
  if (!blk)
    return false;
  blocks_.push_back(std::move(blk));
  return true;
}

bool OBS_Source_Lister::list_objects() {
  if (end_prefix_)
    return walk_next();

  Get_Bucket_Parameter param;
  param.delimiter("/");
  if (!cur_prefix_.empty())
    param.prefix(cur_prefix_.c_str());
  if (!marker_.empty())
    param.marker(marker_.c_str());

  Get_Bucket_Content content;
  if (!request_page(param, content)) {
    lose_prefix(svr_->last_error().number(), svr_->error());
    return true;
  }
  // A service that sends the same page again would be listed for ever.
  if (content.truncated && content.next_marker == marker_) {
    lose_prefix(EPROTO, "the service sends the same page again");
    return true;
  }
  if (!take_objects(content))
    return false;
  take_prefixes(content);
  if (content.truncated) {
    marker_ = content.next_marker;
    return true;
  }
  end_prefix_ = true;
  srcs_.splice(srcs_.begin(), sub_dirs_);
  return true;
}

bool OBS_Source_Lister::request_page(const Get_Bucket_Parameter& param, Get_Bucket_Content& content) {
  Exponential_Backoff_Iterator wait(RETRY_SLOT, UNLIMITED_RETRIES, RETRY_CAP, true);
  for (int attempt = 1; !svr_->get_bucket(cur_bucket_.c_str(), param, content); ++attempt, ++wait) {
    if (!svr_->last_error().retriable() || attempt >= MAX_ATTEMPTS || wait.cumulation() >= MAX_WAIT ||
        !(wait != Exponential_Backoff_Iterator()))
      return false;
    ACE_DEBUG((LM_INFO, ACE_TEXT("Retry(%d) %N:%l at %u second(s) later.\n"), attempt, *wait));
    Clock::instance().sleep(*wait);
    content = Get_Bucket_Content();
  }
  return true;
}

void OBS_Source_Lister::lose_prefix(int number, const std::string& error) {
  end_prefix_ = true;
  if (evt_handler_ != nullptr) {
    evt_handler_->add_skipped_dirs(1);
    evt_handler_->notify_event(MTF::EVENT_ITEM_ERROR, {{"type", "directory"},
                                                       {"name", "/" + cur_bucket_ + "/" + cur_prefix_},
                                                       {"errno", number},
                                                       {"message", error}});
  }
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list object from '%s' with prefix '%s', error: %s.\n"), cur_bucket_.c_str(),
             cur_prefix_.c_str(), error.c_str()));
}

bool OBS_Source_Lister::take_objects(const Get_Bucket_Content& content) {
  std::string path;
  path.reserve(PATH_RESERVE);
  path = "/" + cur_bucket_ + "/";
  const size_t base = path.size();
  for (const S3_Object& object : content.objects) {
    if (object.name == cur_prefix_) {
      if (object.size != 0)
        ACE_ERROR((LM_ERROR, ACE_TEXT("The key '%s' ending with / is not supported, size: %Q.\n"), object.name.c_str(),
                   object.size));
      continue;
    }
    path.resize(base);
    path += object.name;
    if (!MTF::is_included(path.c_str(), false, filter_))
      continue;
    if (!add_file_blk(object.name, object.size, object.mtime)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to alloc block buffer for file %s.\n"), path.c_str()));
      return false;
    }
  }
  return true;
}

void OBS_Source_Lister::take_prefixes(const Get_Bucket_Content& content) {
  const std::string base = "/" + cur_bucket_ + "/";
  for (const std::string& prefix : content.common_prefixes) {
    const std::string path = base + prefix;
    if (MTF::is_included(path.c_str(), true, filter_))
      sub_dirs_.push_back(path);
  }
}

bool OBS_Source_Lister::walk_next() {
  for (;;) {
    marker_.clear();
    if (srcs_.empty())
      return add_fend();
    const std::string src = std::move(srcs_.front());
    srcs_.pop_front();

    const OBS_Path path(src, false);
    if (!path) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid source entry '%s' to list.\n"), src.c_str()));
      continue;
    }
    if (path.bucket_ != cur_bucket_) {
      add_dir_blk(path.bucket_, std::string(), 0);
      cur_bucket_ = path.bucket_;
      cur_prefix_.clear();
    }
    if (path.object_ != cur_prefix_) {
      size_t at = MTF_FS::common_parent(cur_prefix_, path.object_);
      while ((at = path.object_.find('/', at)) != std::string::npos)
        add_dir_blk(cur_bucket_, path.object_, ++at);
      cur_prefix_ = path.object_;
    }
    end_prefix_ = !path.is_prefix();
    return end_prefix_ ? walk_object(src) : true;
  }
}

bool OBS_Source_Lister::walk_object(const std::string& src) {
  S3_Object object;
  if (!svr_->head_object(cur_bucket_.c_str(), cur_prefix_.c_str(), object)) {
    if (evt_handler_ != nullptr) {
      evt_handler_->add_skipped_files(1);
      evt_handler_->notify_event(
          MTF::EVENT_ITEM_ERROR,
          {{"type", "file"}, {"name", src}, {"errno", svr_->last_error().number()}, {"message", svr_->error()}});
    }
    return true;
  }
  if (object.exists && !add_file_blk(cur_prefix_, object.size, object.mtime)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to alloc block buffer for file '%s'.\n"), src.c_str()));
    return false;
  }
  return true;
}
