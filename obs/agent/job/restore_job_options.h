#pragma once

#include "obs/agent/job/buckets_mapper.h"
#include "sdk/job/job_types.h"

#include <yajl/yajl_gen.h>

/// What to do with an object that is there already.
enum OBS_PATH_CONVERTER_TYPE {
  OBS_PCT_NONE = 0,
  OBS_PCT_EXISTING_OVERWRITE = 1,
  OBS_PCT_EXISTING_SKIP = 2,
  OBS_PCT_EXISTING_NEWEST = 3
};

/// How a restore job works. Filled by OBS_Restore_Job_Options_Parser before the job runs.
class OBS_Restore_Job_Options : public Job_Options {
public:
  OBS_Restore_Job_Options() = default;
  ~OBS_Restore_Job_Options() override;

  /// The policy of that name ("overwrite", "skip", "newest", by exact bytes); OBS_PCT_EXISTING_OVERWRITE for any
  /// other text, none at all included.
  static OBS_PATH_CONVERTER_TYPE name_to_existing(const char* text, int length);

  /// Writes the record as one JSON object. Always 0.
  int generate(yajl_gen_t* gen) override;
  /// Writes one item of "bucket_maps": where the objects of `source` go.
  virtual void generate_bucket_mapper(yajl_gen_t* gen, const std::string& source,
                                      const Buckets_Mapper::mapper_t& mapper);

  ACE_UINT32 channels_ = 0; ///< 0: not given
  Buckets_Mapper mapper_;   ///< where the objects go
  bool standalone_ = false;
  OBS_PATH_CONVERTER_TYPE existing_ = OBS_PCT_NONE;
  std::string cache_dir_;     ///< empty: not given
  bool no_acl_ = false;       ///< objects get no access lists
  bool drop_tags_ = false;    ///< nor tags
  std::string storage_class_; ///< for all objects; empty: each one's own
};
