#pragma once

#include <ace/Log_Msg_Callback.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <memory>
#include <string>

/// Runs one script with /bin/sh and waits for it. Its output goes line by line to `callback` as log records of
/// priority LM_INFO, or to the program's log when `callback` is empty. `keep_environment` false: the script gets the
/// agent's environment without what the agent's own start put there. True when the script is empty or exits 0.
bool execute_script(const std::string& text, bool keep_environment, std::shared_ptr<ACE_Log_Msg_Callback> callback);

/// The actions around a job's work. The engines call `execute_pre_action` before the first object and
/// `execute_post_action` once at the end.
class Action_Handler {
public:
  virtual ~Action_Handler();

  void redirect_pre_action_stdout(bool value) { redirect_pre_action_stdout_ = value; }
  void ignore_pre_action_failure(bool value) { ignore_pre_action_failure_ = value; }
  void redirect_post_action_stdin(bool value) { redirect_post_action_stdin_ = value; }
  void ignore_post_action_failure(bool value) { ignore_post_action_failure_ = value; }
  void run_post_action_always(bool value) { run_post_action_always_ = value; }
  bool redirect_pre_action_stdout() const { return redirect_pre_action_stdout_; }
  bool ignore_pre_action_failure() const { return ignore_pre_action_failure_; }
  bool redirect_post_action_stdin() const { return redirect_post_action_stdin_; }
  bool ignore_post_action_failure() const { return ignore_post_action_failure_; }
  bool run_post_action_always() const { return run_post_action_always_; }

  /// True when the work may go on: no action, it succeeded, or its failure is ignored.
  virtual bool execute_pre_action() = 0;
  /// `done`: whether the work succeeded; without `run_post_action_always` nothing runs after a failure. `data` is
  /// what a post-action with redirected input reads: what the pre-action wrote when that was redirected, else
  /// `data`. True as above.
  virtual bool execute_post_action(bool done, const std::string& data) = 0;

private:
  bool redirect_pre_action_stdout_ = false;
  bool ignore_pre_action_failure_ = false;
  bool redirect_post_action_stdin_ = false;
  bool ignore_post_action_failure_ = false;
  bool run_post_action_always_ = false;
};

typedef ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex> Action_Handler_var;

/// Actions that are scripts. With `redirect_pre_action_stdout` the pre-action's output (at most 1 MiB of it) is kept
/// for the post-action's standard input instead of the log.
class Redirect_Script_Handler : public Action_Handler {
public:
  explicit Redirect_Script_Handler(std::shared_ptr<ACE_Log_Msg_Callback> log);
  ~Redirect_Script_Handler() override;

  void pre_action_script(const std::string& script) { pre_action_ = script; }
  void post_action_script(const std::string& script) { post_action_ = script; }
  const std::string& pre_action_script() const { return pre_action_; }
  const std::string& post_action_script() const { return post_action_; }

  bool execute_pre_action() override;
  bool execute_post_action(bool done, const std::string& data) override;

private:
  std::shared_ptr<ACE_Log_Msg_Callback> log_;
  std::string pre_action_;
  std::string post_action_;
  std::string pre_action_output_;
};
