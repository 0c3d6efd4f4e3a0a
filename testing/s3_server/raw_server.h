#pragma once

#include <cstdint>
#include <string>
#include <thread>

namespace s3_testing {

// A server on 127.0.0.1 and a free port that knows no HTTP: each connection gets `answer` as soon as it has sent
// something and is then closed; with an empty answer it is kept and nothing is ever said, unless
// `hang_up`: then it is closed all the same. The destructor closes all.
class Raw_Server {
public:
  explicit Raw_Server(std::string answer, bool hang_up = false);
  ~Raw_Server();
  Raw_Server(const Raw_Server&) = delete;
  Raw_Server& operator=(const Raw_Server&) = delete;

  std::uint16_t port() const { return port_; }

private:
  void serve();

  const std::string answer_;
  const bool hang_up_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  int wake_[2] = {-1, -1}; // a byte ends the thread
  std::thread thread_;
};

} // namespace s3_testing
