#include "obs/agent/path_converter/obs_existing_handler.h"

#include "obs/agent/job/remote_object.h"
#include "obs/agent/util/obs_path.h"
#include "obs/agent/util/utils.h"
#include "sdk/s3/object_attributes.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <new>

/// A service for one request. Where all are lent another one is made, and where that fails one is waited for.
class OBS_Existing_Handler::Loan {
public:
  explicit Loan(const OBS_Existing_Handler& handler) : handler_(handler) {
    {
      const ACE_Guard<ACE_Thread_Mutex> guard(handler_.lock_);
      if (take())
        return;
    }
    S3_Service_var another = make_client(handler_.entry_);
    const ACE_Guard<ACE_Thread_Mutex> guard(handler_.lock_);
    if (another && make_room()) {
      ++handler_.services_;
      service_ = std::move(another);
      return;
    }
    while (!take())
      handler_.returned_.wait();
  }
  ~Loan() {
    const ACE_Guard<ACE_Thread_Mutex> guard(handler_.lock_);
    handler_.idle_.push_back(std::move(service_));
    handler_.returned_.signal();
  }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;
  S3_Service_Base& service() const { return *service_; }

private:
  bool take() {
    if (handler_.idle_.empty())
      return false;
    service_ = std::move(handler_.idle_.back());
    handler_.idle_.pop_back();
    return true;
  }

  /// For one more; giving it back must not fail. Without memory the service that was made is not used.
  bool make_room() {
    try {
      handler_.idle_.reserve(handler_.services_ + 1);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  const OBS_Existing_Handler& handler_;
  S3_Service_var service_;
};

OBS_Existing_Handler::OBS_Existing_Handler(const MTF_FS::IPath_Converter_var& pre, const json_spirit::Object& entry,
                                           const Buckets_Mapper& mapper, OBS_PATH_CONVERTER_TYPE type)
    : Chain_Path_Converter(pre), svr_(make_client(entry)), mapper_(mapper), type_(type), entry_(entry),
      returned_(lock_), idle_(1, svr_), services_(1) {}

OBS_Existing_Handler::~OBS_Existing_Handler() = default;

MTF::Error_Code OBS_Existing_Handler::convert_i(std::string& path, time_t mtime, bool is_dir) const {
  try {
    return convert_ii(path, mtime, is_dir);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return MTF::E_FAILED;
  }
}

MTF::Error_Code OBS_Existing_Handler::convert_ii(const std::string& path, time_t mtime, bool is_dir) const {
  if (is_dir || type_ == OBS_PCT_EXISTING_OVERWRITE || type_ == OBS_PCT_NONE || !svr_)
    return MTF::E_OK;

  OBS_Path source;
  if (!source.parse(path, false))
    return MTF::E_SKIP;
  const Remote_Object target(source, mapper_.mapper(source.bucket_));
  S3_Object object;
  if (!Loan(*this).service().head_object(target.bucket.c_str(), target.key.c_str(), object) || !object.exists)
    return MTF::E_OK;
  switch (type_) {
  case OBS_PCT_EXISTING_SKIP:
    return MTF::E_SKIP;
  case OBS_PCT_EXISTING_NEWEST:
    // A time before the epoch becomes a very large number, so such a file counts as newer than any object.
    return static_cast<ACE_UINT64>(static_cast<ACE_INT64>(mtime)) > object.mtime ? MTF::E_OK : MTF::E_SKIP;
  default:
    return MTF::E_OK;
  }
}

bool OBS_Existing_Handler::is_same(const char* path, ACE_UINT64 size, const MTF::File_Attributes& attributes) const {
  try {
    return is_same_i(path, size, attributes);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

bool OBS_Existing_Handler::is_same_i(const char* path, ACE_UINT64 size, const MTF::File_Attributes& attributes) const {
  OBS_Path source;
  Object_Attributes stored;
  std::string error;
  if (!svr_ || !source.parse(path, false) || !stored.parse(attributes.common, attributes.own, error) ||
      stored.etag.empty())
    return false;
  const Remote_Object target(source, mapper_.mapper(source.bucket_));
  S3_Object object;
  return Loan(*this).service().head_object(target.bucket.c_str(), target.key.c_str(), object) && object.exists &&
         object.size == size && object.etag == "\"" + stored.etag + "\"";
}
