#include "obs/agent/path_converter/obs_existing_handler.h"

#include "obs/agent/job/remote_object.h"
#include "obs/agent/util/obs_path.h"
#include "obs/agent/util/utils.h"

#include <ace/Guard_T.h>

OBS_Existing_Handler::OBS_Existing_Handler(const MTF_FS::IPath_Converter_var& pre, const json_spirit::Object& entry,
                                           const Buckets_Mapper& mapper, OBS_PATH_CONVERTER_TYPE type)
    : Chain_Path_Converter(pre), svr_(make_client(entry)), mapper_(mapper), type_(type) {}

OBS_Existing_Handler::~OBS_Existing_Handler() = default;

MTF::Error_Code OBS_Existing_Handler::convert_i(std::string& path, time_t mtime, bool is_dir) const {
  if (is_dir || type_ == OBS_PCT_EXISTING_OVERWRITE || type_ == OBS_PCT_NONE || !svr_)
    return MTF::E_OK;

  OBS_Path source;
  if (!source.parse(path, false))
    return MTF::E_SKIP;
  const Remote_Object target(source, mapper_.mapper(source.bucket_));
  S3_Object object;
  {
    const ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    if (!svr_->head_object(target.bucket.c_str(), target.key.c_str(), object) || !object.exists)
      return MTF::E_OK;
  }
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
