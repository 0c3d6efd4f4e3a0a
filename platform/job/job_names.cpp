#include "sdk/job/compression.h"
#include "sdk/job/job_types.h"

#include <cstring>

namespace {

struct Name {
  int value;
  const char* text;
};

const Name subtypes[] = {{JOB_DEFINITION_SUBTYPE_FULL, "full"},
                         {JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incremental"},
                         {JOB_DEFINITION_SUBTYPE_CUMULATIVE, "cumulative"},
                         {JOB_DEFINITION_SUBTYPE_MERGE, "merge"},
                         {JOB_DEFINITION_SUBTYPE_ONDEMAND, "ondemand"},
                         {JOB_DEFINITION_SUBTYPE_DR_TEST, "dr_test"}};

const Name states[] = {{JOB_STATE_NONE, "none"},
                       {JOB_STATE_IDLE, "idle"},
                       {JOB_STATE_STARTING, "starting"},
                       {JOB_STATE_RUNNING, "running"},
                       {JOB_STATE_PAUSING, "pausing"},
                       {JOB_STATE_PAUSED, "paused"},
                       {JOB_STATE_COMPLETING, "completing"},
                       {JOB_STATE_COMPLETED, "completed"},
                       {JOB_STATE_CANCELING, "canceling"},
                       {JOB_STATE_CANCELED, "canceled"},
                       {JOB_STATE_ERROR, "error"},
                       {JOB_STATE_CREATED, "created"},
                       {JOB_STATE_UPDATED, "updated"},
                       {JOB_STATE_DELETING, "deleting"},
                       {JOB_STATE_DELETED, "deleted"},
                       {JOB_STATE_COMPLETED_WITH_ERRORS, "completed_with_errors"},
                       {JOB_STATE_DISPATCHING, "dispatching"},
                       {JOB_STATE_SKIPPED, "skipped"},
                       {JOB_STATE_EXPIRED, "expired"},
                       {JOB_STATE_DISABLED, "disabled"},
                       {JOB_STATE_ABORTING, "aborting"},
                       {JOB_STATE_CREATING, "creating"},
                       {JOB_STATE_SYNCING, "syncing"},
                       {JOB_STATE_SWITCHING, "switching"},
                       {JOB_STATE_ACTIVATING, "activating"},
                       {JOB_STATE_OPENING, "opening"}};

const Name compressions[] = {{COMPR_NONE, "none"}, {COMPR_AUTO, "auto"}, {COMPR_LZOP, "lzop"}, {COMPR_ZSTD, "zstd"}};

const Name encryptions[] = {{ENCRYPTION_NONE, "none"}, {ENCRYPTION_AES_256_GCM, "aes-256-gcm"}};

template <size_t COUNT>
const char* text_of(const Name (&names)[COUNT], int value, const char* otherwise) {
  for (const Name& name : names)
    if (name.value == value)
      return name.text;
  return otherwise;
}

} // namespace

const char* job_def_subtype_to_string(Job_Definition_Subtype type) {
  return text_of(subtypes, type, "");
}

Job_Definition_Subtype job_def_subtype_from_string(const std::string& text) {
  for (const Name& name : subtypes)
    if (text == name.text)
      return static_cast<Job_Definition_Subtype>(name.value);
  return JOB_DEFINITION_SUBTYPE_NONE;
}

const char* job_state_to_string(Job_State state) {
  return text_of(states, state, "");
}

Compression_Method compression_name_to_value(const char* text, int length) {
  if (text == nullptr || length < 0)
    return COMPR_NONE;
  for (const Name& name : compressions)
    if (std::strlen(name.text) == static_cast<size_t>(length) &&
        std::memcmp(name.text, text, static_cast<size_t>(length)) == 0)
      return static_cast<Compression_Method>(name.value);
  return COMPR_NONE;
}

const char* compression_value_to_name(Compression_Method method) {
  return text_of(compressions, method, nullptr);
}

const char* encryption_value_to_name(Encryption_Algorithm algorithm, bool only_real) {
  return only_real && algorithm == ENCRYPTION_NONE ? nullptr : text_of(encryptions, algorithm, nullptr);
}
