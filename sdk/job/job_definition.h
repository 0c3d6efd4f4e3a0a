#pragma once

#include "sdk/job/job_types.h"

#include <memory>

/// What a job is to do, as the operator defined it. Filled once, by `make_job_definition` or by hand, and read only
/// afterwards, from any thread.
class Job_Definition {
public:
  /// The plain members that the accessors below answer.
  struct Settings {
    Job_Definition_Type type = JOB_DEFINITION_NONE;
    Job_Definition_Subtype subtype = JOB_DEFINITION_SUBTYPE_NONE;
    std::string id;  ///< the definition's id
    std::string uid; ///< its uuid as text
    std::string name;
    std::string agent;        ///< name of the agent that runs it
    std::string host_id;      ///< uuid of the host; for object storage of the account entry
    std::string precondition; ///< scripts, for /bin/sh; empty: none
    std::string pre_action;
    std::string post_action;
    bool redirect_pre_action_stdout = false;
    bool redirect_post_action_stdin = false;
    bool ignore_pre_action_failure = false;
    bool ignore_post_action_failure = false;
    bool run_post_action_always = false;
    std::string backup_protection_password;
    int max_seconds_retry = 300; ///< seconds of waiting after which a failing request is given up; -1: no bound
    ACE_UINT64 resumption_buffer_size = 0;
    ACE_UINT64 rate_limit = 0; ///< bytes per second of the whole job; 0: none
    unsigned readers = 0;      ///< objects read at the same time over the whole run; 0: the default
    std::string archived;      ///< objects that must be thawed first: "skip" (also empty), "fail", "request"
    bool server_side_dedup = false;
    /// Restore: uuid of the set that `source` means by its number; empty: the number alone says it.
    std::string set_uuid;
    bool only_different = false; ///< restore: objects that are there already with the same content are not written
    Job_Target target;
  };

  Job_Definition();
  explicit Job_Definition(Settings settings);
  virtual ~Job_Definition();

  Job_Definition_Type type() const { return settings_.type; }
  Job_Definition_Subtype subtype() const { return settings_.subtype; }
  const std::string& id() const { return settings_.id; }
  const std::string& uid() const { return settings_.uid; }
  const std::string& name() const { return settings_.name; }
  const std::string& agent() const { return settings_.agent; }
  const std::string& host_id() const { return settings_.host_id; }
  const std::string& precondition() const { return settings_.precondition; }
  const std::string& pre_action() const { return settings_.pre_action; }
  const std::string& post_action() const { return settings_.post_action; }
  bool redirect_pre_action_stdout() const { return settings_.redirect_pre_action_stdout; }
  bool redirect_post_action_stdin() const { return settings_.redirect_post_action_stdin; }
  bool ignore_pre_action_failure() const { return settings_.ignore_pre_action_failure; }
  bool ignore_post_action_failure() const { return settings_.ignore_post_action_failure; }
  bool run_post_action_always() const { return settings_.run_post_action_always; }
  const std::string& backup_protection_password() const { return settings_.backup_protection_password; }
  int max_seconds_retry() const { return settings_.max_seconds_retry; }
  ACE_UINT64 resumption_buffer_size() const { return settings_.resumption_buffer_size; }
  ACE_UINT64 rate_limit() const { return settings_.rate_limit; }
  bool server_side_dedup() const { return settings_.server_side_dedup; }
  unsigned readers() const { return settings_.readers; }
  const std::string& archived() const { return settings_.archived; }
  const std::string& set_uuid() const { return settings_.set_uuid; }
  bool only_different() const { return settings_.only_different; }
  const Job_Target& target() const { return settings_.target; }

  std::vector<std::shared_ptr<Job_Schedule>> schedules; ///< members may be null
  Job_Source_var source;                                ///< the record that the module's source parser made
  Job_Options_var options;                              ///< likewise

private:
  Settings settings_;
};

typedef ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> Job_Definition_var;

/// Writes the 16 bytes of a uuid given as text ("8-4-4-4-12" hexadecimal digits) to `out`. False, with `out` all
/// zero, when the text is no uuid.
bool uuid_string_to_binary(const std::string& text, unsigned char out[16]);
/// A new random (version 4) uuid as text.
std::string make_uuid();
