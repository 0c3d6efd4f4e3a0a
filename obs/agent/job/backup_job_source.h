#pragma once

#include "sdk/job/job_types.h"

#include <yajl/yajl_gen.h>

/// What a backup job backs up: an object-storage account. Filled by OBS_Backup_Job_Source_Parser.
class OBS_Backup_Job_Source : public Job_Source {
public:
  OBS_Backup_Job_Source() = default;
  ~OBS_Backup_Job_Source() override;

  /// Writes the record as one JSON object. Always 0.
  int generate(yajl_gen_t* gen) const override;

  std::string minor_resource_id_;   ///< the selection of the account
  std::string minor_resource_name_; ///< its name for people
};
