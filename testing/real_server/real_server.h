#pragma once

#include <map>
#include <string>

namespace s3_testing {

// A real S3 service with an empty store, for one test. It runs as processes of its own (see rgw-up.sh) in a folder
// under $TMPDIR, on free ports of 127.0.0.1, plain and TLS.
//
// Life: start() returns when signed requests are answered, after about a second. stop() and the destructor end the
// processes and remove the folder; both may come without start(). Used by one thread.
class Real_Server {
public:
  Real_Server() = default;
  ~Real_Server();
  Real_Server(const Real_Server&) = delete;
  Real_Server& operator=(const Real_Server&) = delete;

  // Whether the service's programs are installed.
  static bool installed();

  // More RGW_* variables of rgw-up.sh, before start().
  void set_option(const std::string& name, const std::string& value) { options_[name] = value; }

  // False where the service does not come up; error() then has what the script said.
  bool start();
  void stop();

  const std::string& error() const { return error_; }
  std::string endpoint() const { return value("endpoint"); }         // "http://127.0.0.1:PORT"
  std::string tls_endpoint() const { return value("tls_endpoint"); } // "https://127.0.0.1:PORT"
  std::string ca_file() const { return value("ca"); }
  std::string access_key() const { return value("access_key"); }
  std::string secret_key() const { return value("secret_key"); }
  // The folder that holds the service's state, "env" among it.
  const std::string& folder() const { return folder_; }

private:
  std::string value(const std::string& name) const;
  bool run(const std::string& script, const std::string& argument, std::string& output);

  std::map<std::string, std::string> options_, values_;
  std::string folder_, error_;
};

} // namespace s3_testing
