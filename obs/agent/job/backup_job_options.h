#pragma once

#include "sdk/base/path.h"
#include "sdk/job/compression.h"
#include "sdk/job/job_types.h"

#include <yajl/yajl_gen.h>

/// How a backup job works. Filled by OBS_Backup_Job_Options_Parser before the job runs.
class OBS_Backup_Job_Options : public Job_Options {
public:
  OBS_Backup_Job_Options() = default;
  ~OBS_Backup_Job_Options() override;

  /// Writes the record as one JSON object, leaving out what stands at "not given". Always 0.
  int generate(yajl_gen_t* gen) override;

  Compression_Method compression_ = COMPR_NONE;
  int compression_level_ = 1;
  size_t channels_ = 0;              ///< 0: not given
  String_Array exclusion_;           ///< rules, in the order given
  String_Array inclusion_;           ///< likewise
  std::string cache_dir_;            ///< empty: not given
  size_t scan_file_threads_ = 0;     ///< threads that list; 0: not given
  ACE_UINT64 list_cache_limits_ = 0; ///< entries that a listing may hold ready; 0: not given
  bool tags_ = false;                ///< ask for the tags of each object
  bool acl_ = false;                 ///< ask for the access list of each object
  bool refresh_tags_ = false;        ///< both also of objects of which they are known
};
