#include "sdk/job/action_handler.h"

#include "platform/job/script.h"

#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Lines : public ACE_Log_Msg_Callback {
public:
  void log(ACE_Log_Record& record) override {
    EXPECT_EQ(static_cast<ACE_UINT32>(LM_INFO), record.type());
    text += std::string(record.msg_data()) + "|";
  }
  std::string text;
};

class Script : public ::testing::Test {
protected:
  bool run(const std::string& text) { return execute_script(text, false, lines); }

  static std::set<std::string> open_files() {
    std::set<std::string> files;
    DIR* folder = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(folder))
      files.insert(entry->d_name);
    closedir(folder);
    return files;
  }

  const std::shared_ptr<Lines> lines = std::make_shared<Lines>();
};

TEST_F(Script, exit_code_decides) {
  EXPECT_TRUE(run("exit 0"));
  EXPECT_FALSE(run("exit 1"));
  EXPECT_FALSE(run("exit 255"));
  EXPECT_FALSE(run("no_such_command_anywhere"));
  EXPECT_FALSE(run("if"));
  EXPECT_FALSE(run("kill -9 $$"));
}

TEST_F(Script, empty_one_succeeds_without_being_run) {
  EXPECT_TRUE(run(""));
  EXPECT_EQ("", lines->text);
}

TEST_F(Script, output_comes_line_by_line_from_both_streams_in_order) {
  EXPECT_TRUE(run("echo one; echo two >&2; echo; printf 'no newline'"));
  EXPECT_EQ("one|two||no newline|", lines->text);
}

TEST_F(Script, output_of_a_failed_script_is_kept) {
  EXPECT_FALSE(run("echo reason; exit 3"));
  EXPECT_EQ("reason|", lines->text);
}

TEST_F(Script, much_output_does_not_block) {
  EXPECT_TRUE(run("i=0; while [ $i -lt 20000 ]; do echo 0123456789; i=$((i+1)); done"));
  EXPECT_EQ(20000u * 11, lines->text.size());
}

TEST_F(Script, long_line_is_cut_into_several_without_losing_a_byte) {
  EXPECT_TRUE(run("printf '%05000d\\nend\\n' 7"));
  std::string joined;
  for (const char c : lines->text)
    if (c != '|')
      joined += c;
  EXPECT_EQ(std::string(4999, '0') + "7end", joined);
}

TEST_F(Script, line_of_exactly_the_longest_length_leaves_no_empty_one_behind) {
  EXPECT_TRUE(run("printf '%02048d\\nend\\n' 7"));
  EXPECT_EQ(std::string(2047, '0') + "7|end|", lines->text);
}

TEST_F(Script, without_a_callback_it_runs_too) {
  EXPECT_TRUE(execute_script("echo to the program log", false, nullptr));
  EXPECT_FALSE(execute_script("exit 1", false, nullptr));
}

TEST_F(Script, nothing_is_there_to_read) {
  EXPECT_TRUE(run("read line && echo got || echo nothing"));
  EXPECT_EQ("nothing|", lines->text);
}

TEST_F(Script, what_the_agent_added_to_its_environment_is_left_out_unless_kept) {
  setenv("OBS_AGENT_TEST_VARIABLE", "added", 1);
  EXPECT_TRUE(execute_script("echo \"[$OBS_AGENT_TEST_VARIABLE]\"", false, lines));
  EXPECT_TRUE(execute_script("echo \"[$OBS_AGENT_TEST_VARIABLE]\"", true, lines));
  EXPECT_TRUE(execute_script("[ -n \"$PATH\" ]", false, lines));
  unsetenv("OBS_AGENT_TEST_VARIABLE");
  EXPECT_EQ("[]|[added]|", lines->text);
}

TEST_F(Script, process_left_in_the_background_is_not_waited_for) {
  EXPECT_TRUE(run("sleep 60 & echo $!"));
  const pid_t left = static_cast<pid_t>(atol(lines->text.c_str()));
  ASSERT_GT(left, 1);
  EXPECT_EQ(0, kill(left, SIGKILL));
}

TEST_F(Script, leaves_neither_open_files_nor_zombies) {
  const std::set<std::string> before = open_files();
  for (int i = 0; i < 20; ++i) {
    run("echo x");
    run("exit 1");
  }
  EXPECT_EQ(before, open_files());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(Script, inherits_no_files_of_the_agent) {
  // A number that no shell takes for itself.
  const int file = fcntl(STDERR_FILENO, F_DUPFD, 200);
  ASSERT_GE(file, 200);
  EXPECT_FALSE(run("[ -e /proc/self/fd/" + std::to_string(file) + " ]"));
  close(file);
}

TEST_F(Script, ignored_signals_of_the_agent_are_not_inherited) {
  void (*const before)(int) = signal(SIGPIPE, SIG_IGN);
  EXPECT_FALSE(run("kill -PIPE $$; exit 0"));
  signal(SIGPIPE, before);
}

TEST_F(Script, text_that_cannot_be_passed_on_fails) {
  EXPECT_FALSE(run(std::string("exit 0\0", 7)));
  EXPECT_FALSE(run("exit 0 #" + std::string(4 * 1024 * 1024, 'x')));
}

class Redirected : public ::testing::Test {
protected:
  const std::shared_ptr<Lines> lines = std::make_shared<Lines>();
  Redirect_Script_Handler handler{lines};
};

TEST_F(Redirected, without_scripts_everything_succeeds) {
  EXPECT_TRUE(handler.execute_pre_action());
  EXPECT_TRUE(handler.execute_post_action(true, "data"));
  EXPECT_TRUE(handler.execute_post_action(false, "data"));
}

TEST_F(Redirected, failure_counts_unless_ignored) {
  handler.pre_action_script("exit 1");
  handler.post_action_script("exit 1");
  EXPECT_FALSE(handler.execute_pre_action());
  EXPECT_FALSE(handler.execute_post_action(true, ""));
  handler.ignore_pre_action_failure(true);
  EXPECT_TRUE(handler.execute_pre_action());
  EXPECT_FALSE(handler.execute_post_action(true, ""));
  handler.ignore_post_action_failure(true);
  EXPECT_TRUE(handler.execute_post_action(true, ""));
}

TEST_F(Redirected, post_action_runs_after_a_failure_only_when_always) {
  handler.post_action_script("echo ran");
  EXPECT_TRUE(handler.execute_post_action(false, ""));
  EXPECT_EQ("", lines->text);
  handler.run_post_action_always(true);
  EXPECT_TRUE(handler.execute_post_action(false, ""));
  EXPECT_EQ("ran|", lines->text);
}

TEST_F(Redirected, pre_action_output_becomes_the_post_actions_input) {
  handler.pre_action_script("echo token; echo noise >&2");
  handler.post_action_script("read line; echo \"got $line\"");
  handler.redirect_pre_action_stdout(true);
  handler.redirect_post_action_stdin(true);
  EXPECT_TRUE(handler.execute_pre_action());
  EXPECT_EQ("noise|", lines->text);
  EXPECT_TRUE(handler.execute_post_action(true, "other"));
  EXPECT_EQ("noise|got token|", lines->text);
}

TEST_F(Redirected, given_data_is_the_input_when_the_pre_action_kept_nothing) {
  handler.pre_action_script("echo token");
  handler.post_action_script("cat");
  handler.redirect_post_action_stdin(true);
  EXPECT_TRUE(handler.execute_pre_action());
  EXPECT_TRUE(handler.execute_post_action(true, "one\ntwo\n"));
  EXPECT_EQ("token|one|two|", lines->text);
}

TEST_F(Redirected, without_redirection_the_post_action_reads_nothing) {
  handler.post_action_script("wc -c");
  EXPECT_TRUE(handler.execute_post_action(true, "data"));
  EXPECT_EQ("0|", lines->text);
}

TEST_F(Redirected, kept_output_is_bounded_and_survives_a_script_that_does_not_read_it) {
  handler.pre_action_script("head -c 3000000 /dev/zero");
  handler.post_action_script("wc -c");
  handler.redirect_pre_action_stdout(true);
  handler.redirect_post_action_stdin(true);
  EXPECT_TRUE(handler.execute_pre_action());
  EXPECT_TRUE(handler.execute_post_action(true, ""));
  EXPECT_EQ("1048576|", lines->text);
  handler.post_action_script("exit 0");
  EXPECT_TRUE(handler.execute_post_action(true, ""));
}

TEST_F(Redirected, output_of_an_earlier_run_is_not_kept) {
  handler.redirect_pre_action_stdout(true);
  handler.redirect_post_action_stdin(true);
  handler.pre_action_script("echo first");
  EXPECT_TRUE(handler.execute_pre_action());
  handler.pre_action_script("");
  EXPECT_TRUE(handler.execute_pre_action());
  handler.post_action_script("wc -c");
  EXPECT_TRUE(handler.execute_post_action(true, "x"));
  EXPECT_EQ("0|", lines->text);
}

} // namespace
