#include "sdk/error/error.h"

#include "sdk/base/clock.h"
#include "sdk/job/job.h"

#include <cstdio>

namespace {

// Of a thread that works for no job.
thread_local Error thread_error;

struct Message {
  ACE_UINT64 id;         ///< a whole id, or the code alone for the common ones
  const char* text;      ///< "%1" is the place of the first parameter
  const char* bare_text; ///< where no parameter came; null: the same
};

const Message resource_messages[] = {
    {0x70000031E0100001ull, "The object storage cannot be reached: %1",
     "The object storage cannot be reached. Check the account's endpoint and keys."},
    {0x70000031E0100002ull, "No object was backed up.", nullptr},
    {0x50000031E0100003ull, "The backup ended, but objects were skipped: %1.",
     "The backup ended, but objects were skipped."},
    {0x70000031E0200004ull, "No object was restored.", nullptr},
    {0x50000031E0200005ull, "The restore ended, but objects were skipped: %1.",
     "The restore ended, but objects were skipped."},
};

const Message common_messages[] = {
    {COMMON_CODE_FAILED_TO_COMMIT_CATALOG,
     "The catalog of the backup could not be committed; the set cannot be used: %1",
     "The catalog of the backup could not be committed; the set cannot be used."},
    {COMMON_CODE_FAILED_TO_GET_POOL, "The storage pool '%1' cannot be found or opened.",
     "The storage pool cannot be found or opened."},
    {COMMON_CODE_FAILED_TO_GET_INCARNATION, "The backup set to restore cannot be found in the pool: %1",
     "The backup set to restore cannot be found in the pool."},
};

std::string param_text(const json_spirit::Value& param) {
  return param.type() == json_spirit::str_type ? param.get_str() : json_spirit::write(param);
}

bool has_content(const json_spirit::Array& params) {
  return !params.empty() && !params[0].is_null() &&
         !(params[0].type() == json_spirit::str_type && params[0].get_str().empty());
}

// Parameters are put in once: a "%1" inside a parameter stays as it is.
std::string fill(const char* text, const json_spirit::Array& params) {
  std::string filled;
  for (const char* at = text; *at != '\0'; ++at) {
    if (at[0] == '%' && at[1] >= '1' && at[1] <= '9') {
      const size_t place = static_cast<size_t>(*++at - '1');
      if (place < params.size())
        filled += param_text(params[place]);
    } else {
      filled += *at;
    }
  }
  return filled;
}

const Message* find_message(const Error_ID& id) {
  for (const Message& message : resource_messages)
    if (message.id == id.value())
      return &message;
  // Common ones name no module and no facility.
  constexpr ACE_UINT64 origin = 0x00000FFFF0000000ull;
  if ((id.value() & origin) == 0)
    for (const Message& message : common_messages)
      if (message.id == id.code())
        return &message;
  return nullptr;
}

} // namespace

Error_Manager* Error_Manager::instance() {
  static Error_Manager manager;
  return &manager;
}

void Error_Manager::set_last_error(const Error& error) {
  if (Job* job = Job::current())
    job->set_last_error(error);
  else
    thread_error = error;
}

bool Error_Manager::last_error(Error& error) const {
  const Job* job = Job::current();
  const Error found = job != nullptr ? job->last_error() : thread_error;
  if (found.id.value() == 0)
    return false;
  error = found;
  return true;
}

void Error_Manager::clear() {
  set_last_error(Error());
}

void write_job_alert(Job& job, int level, int code, ACE_UINT64 flags, const json_spirit::Array& params, int count) {
  const ACE_UINT64 value = static_cast<ACE_UINT64>(level & 15) << 60 | flags | static_cast<ACE_UINT64>(code & 0xFFFFF);
  write_job_alert(job, Error_ID(value), params, count);
}

void write_job_alert(Job& job, Error_ID id, const json_spirit::Array& params, int count) {
  job.add_alert(Job_Alert{Error(id, Clock::instance().now(), params), count});
}

std::string error_text(const Error& error) {
  if (const Message* message = find_message(error.id)) {
    const bool bare = message->bare_text != nullptr && !has_content(error.params);
    return fill(bare ? message->bare_text : message->text, error.params);
  }
  char id[40];
  snprintf(id, sizeof id, "Message 0x%016llX", static_cast<unsigned long long>(error.id.value()));
  std::string text(id);
  for (const json_spirit::Value& param : error.params)
    text += (&param == &error.params[0] ? ": " : ", ") + param_text(param);
  return text;
}
