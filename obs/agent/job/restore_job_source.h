#pragma once

#include "sdk/job/job_types.h"

#include <yajl/yajl_gen.h>

#include <list>

/// What a restore job restores: which set, and which of its folders and objects. Filled by
/// OBS_Restore_Job_Source_Parser.
class OBS_Restore_Job_Source : public Job_Source {
public:
  OBS_Restore_Job_Source() = default;
  ~OBS_Restore_Job_Source() override;

  /// Writes the record as one JSON object. An entry that is no {"dir"} or {"file"} with a text is logged and left
  /// out. Always 0.
  int generate(yajl_gen_t* gen) const override;

  std::string catalog_id_;
  std::string backup_minor_resource_id_;  ///< the selection that was backed up
  std::list<json_spirit::Value> entries_; ///< each {"dir": text} or {"file": text}, in the order given
  std::string backup_host_id_;            ///< the account that was backed up
  std::string pool_uuid_;                 ///< the pool that holds it
  ACE_INT64 seq_ = 0;                     ///< sequence number of the backup
};
