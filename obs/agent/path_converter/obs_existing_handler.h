#pragma once

#include "obs/agent/job/restore_job_options.h"
#include "sdk/json/json_spirit.h"
#include "sdk/mtf/file_replacement.h"
#include "sdk/mtf/restore_callback.h"
#include "sdk/s3/s3_service.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <vector>

/// Applies a restore's policy for objects that are there already: looks at the object that a file would be written to
/// and tells whether to go on or to leave the file out. Never changes the path. The mapper outlives it.
///
/// `convert` may be called from any thread; as many requests as threads may be under way, each with a service of its
/// own.
class OBS_Existing_Handler : public MTF_FS::Chain_Path_Converter<OBS_Existing_Handler>, public MTF::IFile_Comparison {
public:
  /// `pre`, which may be empty, is asked first. `entry`: the account that is restored to; when no service can be made
  /// from it, every file passes.
  OBS_Existing_Handler(const MTF_FS::IPath_Converter_var& pre, const json_spirit::Object& entry,
                       const Buckets_Mapper& mapper, OBS_PATH_CONVERTER_TYPE type);
  ~OBS_Existing_Handler() override;

  /// `mtime` of the backed-up file in seconds since the epoch. E_SKIP for a path that names no bucket, and where the
  /// policy protects the object that is there; else E_OK. An object that cannot be asked for counts as missing.
  /// E_FAILED, with `errno` ENOMEM, when memory is short.
  MTF::Error_Code convert_i(std::string& path, time_t mtime, bool is_dir) const;

  /// By size and ETag, asked of the service where the attributes have an ETag. False wherever one of the two is not
  /// known, the service does not answer, or memory is short.
  bool is_same(const char* path, ACE_UINT64 size, const MTF::File_Attributes& attributes) const override;

private:
  class Loan;

  bool is_same_i(const char* path, ACE_UINT64 size, const MTF::File_Attributes& attributes) const;

  MTF::Error_Code convert_ii(const std::string& path, time_t mtime, bool is_dir) const;

  S3_Service_var svr_; ///< empty when it could not be made
  const Buckets_Mapper& mapper_;
  OBS_PATH_CONVERTER_TYPE type_;
  json_spirit::Object entry_;
  mutable ACE_Thread_Mutex lock_; ///< guards what follows
  mutable ACE_Condition_Thread_Mutex returned_;
  mutable std::vector<S3_Service_var> idle_; ///< has room for all that there are
  mutable size_t services_ = 0;              ///< idle and lent
};
