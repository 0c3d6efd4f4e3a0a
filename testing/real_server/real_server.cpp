#include "testing/real_server/real_server.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace s3_testing {
namespace {

std::string file_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

Real_Server::~Real_Server() {
  stop();
}

bool Real_Server::installed() {
  for (const char* program : {"/usr/bin/radosgw", "/usr/bin/ceph-mon", "/usr/bin/ceph-osd", "/usr/bin/ceph"})
    if (::access(program, X_OK) != 0)
      return false;
  return true;
}

std::string Real_Server::value(const std::string& name) const {
  const auto at = values_.find(name);
  return at == values_.end() ? std::string() : at->second;
}

bool Real_Server::run(const std::string& script, const std::string& argument, std::string& output) {
  const std::string path = std::string(REAL_SERVER_SCRIPTS) + "/" + script;
  const std::string log = folder_ + "/" + script + ".log";
  std::vector<std::string> words = {"/bin/bash", path, folder_ + "/state"};
  if (!argument.empty())
    words.push_back(argument);
  std::vector<std::string> variables;
  for (char** at = environ; *at; ++at)
    variables.emplace_back(*at);
  // What comes first counts where a name stands twice.
  for (const auto& [name, text] : options_)
    variables.insert(variables.begin(), name + "=" + text);
  if (!options_.count("RGW_TLS_PORT"))
    variables.insert(variables.begin(), "RGW_TLS_PORT=0");
  std::vector<char*> argv, envp;
  for (std::string& word : words)
    argv.push_back(word.data());
  for (std::string& variable : variables)
    envp.push_back(variable.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  // Into a file, not a pipe: the daemons keep what they inherit, and a pipe would not end.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t child = -1;
  const int failed = ::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (failed) {
    output = "cannot run " + path + ": " + std::strerror(failed);
    return false;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  output = file_text(log);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool Real_Server::start() {
  if (!folder_.empty()) {
    error_ = "already started";
    return false;
  }
  const char* base = std::getenv("TMPDIR");
  std::string name = std::string(base && *base ? base : "/tmp") + "/real-s3-XXXXXX";
  if (!::mkdtemp(name.data())) {
    error_ = "cannot create " + name + ": " + std::strerror(errno);
    return false;
  }
  folder_ = name;
  std::string output;
  if (!run("rgw-up.sh", "0", output)) {
    error_ = "the S3 service does not come up: " + output;
    stop();
    return false;
  }
  std::ifstream env(folder_ + "/state/env");
  for (std::string line; std::getline(env, line);)
    if (const auto equals = line.find('='); equals != std::string::npos)
      values_[line.substr(0, equals)] = line.substr(equals + 1);
  return true;
}

void Real_Server::stop() {
  if (folder_.empty())
    return;
  std::string output;
  std::error_code ignored;
  // A folder whose daemons live on is left to whoever has to end them.
  if (!std::filesystem::exists(folder_ + "/state") || run("rgw-down.sh", "", output))
    std::filesystem::remove_all(folder_, ignored);
  else
    error_ += output;
  folder_.clear();
  values_.clear();
}

} // namespace s3_testing
