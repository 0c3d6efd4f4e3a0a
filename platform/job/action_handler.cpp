#include "sdk/job/action_handler.h"

#include "platform/job/script.h"

bool execute_script(const std::string& text, bool keep_environment, std::shared_ptr<ACE_Log_Msg_Callback> callback) {
  if (text.empty())
    return true;
  Script_Run run;
  run.text = text;
  run.keep_environment = keep_environment;
  run.log = std::move(callback);
  return run_script(run);
}

Action_Handler::~Action_Handler() = default;

Redirect_Script_Handler::Redirect_Script_Handler(std::shared_ptr<ACE_Log_Msg_Callback> log) : log_(std::move(log)) {}

Redirect_Script_Handler::~Redirect_Script_Handler() = default;

bool Redirect_Script_Handler::execute_pre_action() {
  pre_action_output_.clear();
  if (pre_action_.empty())
    return true;
  Script_Run run;
  run.text = pre_action_;
  run.log = log_;
  if (redirect_pre_action_stdout())
    run.output = &pre_action_output_;
  return run_script(run) || ignore_pre_action_failure();
}

bool Redirect_Script_Handler::execute_post_action(bool done, const std::string& data) {
  if (post_action_.empty() || (!done && !run_post_action_always()))
    return true;
  Script_Run run;
  run.text = post_action_;
  run.log = log_;
  if (redirect_post_action_stdin())
    run.input = redirect_pre_action_stdout() ? &pre_action_output_ : &data;
  return run_script(run) || ignore_post_action_failure();
}
