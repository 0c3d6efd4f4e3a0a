#include "platform/file_backup/run_observer.h"

#include "platform/s3/ledger.h"
#include "sdk/file_backup/file_backup.h"

#include <algorithm>
#include <set>

using json_spirit::Object;
using json_spirit::Value;

namespace {

/// The outcome's form of an item error: all four members, whatever came.
Object complete_error(const Object& options) {
  Object error;
  error["type"] = json_spirit::optional_str(options, "type");
  error["name"] = json_spirit::optional_str(options, "name");
  const Value* number = json_spirit::find(options, "errno");
  error["errno"] = number != nullptr ? *number : Value();
  error["message"] = json_spirit::optional_str(options, "message");
  return error;
}

/// Two reports of one problem are one: the engine's account lists what it also told as an event.
std::string identity(const Object& error) {
  return json_spirit::optional_str(error, "type") + '\0' + json_spirit::optional_str(error, "name") + '\0' +
         json_spirit::optional_str(error, "message");
}

} // namespace

void Run_Observer::event(unsigned code, const Object& options, unsigned long long skipped) {
  if (code == MTF::EVENT_ITEM_ERROR)
    item_error(options);
  count_problems(skipped);
  if (code == MTF::EVENT_OUTCOME)
    outcome(options);
}

void Run_Observer::item_error(const Object& options) {
  const std::lock_guard<std::mutex> guard(mutex_);
  ++errors_seen_;
  if (errors_.size() < MAX_ERRORS)
    errors_.push_back(complete_error(options));
}

void Run_Observer::count_problems(unsigned long long skipped) {
  const std::lock_guard<std::mutex> guard(mutex_);
  activity_.problems = std::max<ACE_UINT64>(activity_.problems, std::max<ACE_UINT64>(errors_seen_, skipped));
}

void Run_Observer::outcome(const Object& figures) {
  Object account = figures;
  json_spirit::Array errors;
  std::set<std::string> known;
  const Value* given = json_spirit::find(figures, "errors");
  if (given != nullptr && given->type() == json_spirit::array_type)
    for (const Value& value : given->get_array())
      if (value.type() == json_spirit::obj_type && errors.size() < MAX_ERRORS) {
        errors.push_back(value);
        known.insert(identity(value.get_obj()));
      }
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const Value& value : errors_)
      if (errors.size() < MAX_ERRORS && known.insert(identity(value.get_obj())).second)
        errors.push_back(value);
    account["problems"] = static_cast<ACE_UINT64>(activity_.problems);
  }
  account["errors"] = std::move(errors);
  job_.set_result("outcome", account);
}

int Run_Observer::progress(int code, unsigned long long objects, unsigned long long size, unsigned long long set_size,
                           unsigned long long skipped) {
  activity_.objects = objects;
  activity_.size = size;
  activity_.set_size = set_size;
  activity_.listed = job_.ledger()->listed_keys + job_.ledger()->head_objects;
  count_problems(skipped);
  // The host takes figures from the activity.
  return handler_.handle_progress(code, 0, 0, 0);
}

namespace file_backup {

struct Backup_Event_Handler::Impl : Run_Observer {
  using Run_Observer::Run_Observer;
};

Backup_Event_Handler::Backup_Event_Handler(Job_Definition&, Job_Activity& act, Job_Event_Handler& handler, Job& job)
    : MTF::Event_Handler(0), impl_(new Impl(act, handler, job)) {}

Backup_Event_Handler::~Backup_Event_Handler() = default;

int Backup_Event_Handler::notify_event(unsigned code, const Object& options) {
  impl_->event(code, options, skipped_files() + skipped_dirs());
  return 0;
}

int Backup_Event_Handler::handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) {
  return impl_->progress(code, a, b, c, skipped_files() + skipped_dirs());
}

bool Backup_Event_Handler::canceling() {
  return impl_->canceling();
}

bool Backup_Event_Handler::pausing() {
  return impl_->pausing();
}

struct Restore_Event_Handler::Impl : Run_Observer {
  using Run_Observer::Run_Observer;
};

Restore_Event_Handler::Restore_Event_Handler(Job_Definition&, Job_Activity& act, Job_Event_Handler& handler, Job& job)
    : MTF::Event_Handler(0), impl_(new Impl(act, handler, job)) {}

Restore_Event_Handler::~Restore_Event_Handler() = default;

int Restore_Event_Handler::notify_event(unsigned code, const Object& options) {
  impl_->event(code, options, skipped_files() + skipped_dirs());
  return 0;
}

// What a restore stores are the objects, and what it reads is what the set takes.
int Restore_Event_Handler::handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) {
  return impl_->progress(code, a, c, b, skipped_files() + skipped_dirs());
}

bool Restore_Event_Handler::canceling() {
  return impl_->canceling();
}

bool Restore_Event_Handler::pausing() {
  return impl_->pausing();
}

} // namespace file_backup
