#include "bench/s3_source/connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr size_t MAX_HEAD = 64 * 1024;
/// Up to here a copy is cheaper than another system call.
constexpr uint64_t SMALL = 64 * 1024;

int digit(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

std::string decode(std::string_view text, bool plus) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && digit(text[i + 1]) >= 0 && digit(text[i + 2]) >= 0) {
      out += static_cast<char>(digit(text[i + 1]) * 16 + digit(text[i + 2]));
      i += 2;
    } else {
      out += plus && text[i] == '+' ? ' ' : text[i];
    }
  }
  return out;
}

} // namespace

Connection::~Connection() {
  ::close(fd_);
}

bool Connection::receive() {
  static char buffer[1 << 20];
  for (;;) {
    if (next_request())
      return true;
    const ssize_t count = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
      return false;
    if (count <= 0) {
      state_ = CLOSED;
      return false;
    }
    // The body of an upload is only counted.
    size_t skipped = 0;
    if (head_read_ && !keep_body_ && in_.empty()) {
      skipped = static_cast<size_t>(std::min<uint64_t>(body_left_, static_cast<uint64_t>(count)));
      body_left_ -= skipped;
    }
    in_.append(buffer + skipped, static_cast<size_t>(count) - skipped);
  }
}

bool Connection::next_request() {
  if (state_ != READING || (!head_read_ && !parse_head()))
    return false;
  const size_t piece = static_cast<size_t>(std::min<uint64_t>(body_left_, in_.size()));
  if (keep_body_)
    request_.body.append(in_, 0, piece);
  in_.erase(0, piece);
  body_left_ -= piece;
  if (body_left_ != 0)
    return false;
  head_read_ = false;
  return true;
}

bool Connection::parse_head() {
  const size_t end = in_.find("\r\n\r\n");
  if (end == std::string::npos) {
    if (in_.size() > MAX_HEAD)
      state_ = CLOSED;
    return false;
  }
  request_ = Request();
  const std::string_view head = std::string_view(in_).substr(0, end + 2);
  const size_t line = head.find("\r\n");
  const size_t first = head.find(' '), second = head.find(' ', first + 1);
  if (first == std::string_view::npos || second == std::string_view::npos || second > line) {
    state_ = CLOSED;
    return false;
  }
  request_.method = head.substr(0, first);
  std::string_view target = head.substr(first + 1, second - first - 1);
  const size_t question = target.find('?');
  request_.path = decode(target.substr(0, question), false);
  while (question != std::string_view::npos) {
    target.remove_prefix(target.find_first_of("?&") + 1);
    const std::string_view one = target.substr(0, target.find('&'));
    const size_t equals = one.find('=');
    request_.query.emplace_back(decode(one.substr(0, equals), true), equals == std::string_view::npos
                                                                         ? std::string()
                                                                         : decode(one.substr(equals + 1), true));
    if (target.find('&') == std::string_view::npos)
      break;
  }
  bool expects = false;
  for (size_t at = line + 2; at < head.size();) {
    const size_t stop = head.find("\r\n", at);
    const std::string_view header = head.substr(at, stop - at);
    const size_t colon = header.find(':');
    if (colon != std::string_view::npos) {
      std::string_view value = header.substr(colon + 1);
      while (!value.empty() && value.front() == ' ')
        value.remove_prefix(1);
      const auto named = [&](const char* name) {
        return std::strlen(name) == colon && ::strncasecmp(header.data(), name, colon) == 0;
      };
      if (named("Content-Length"))
        request_.body_size = std::strtoull(std::string(value).c_str(), nullptr, 10);
      else if (named("Range"))
        request_.range = value;
      else if (named("Expect"))
        expects = true;
    }
    at = stop + 2;
  }
  in_.erase(0, end + 4);
  head_read_ = true;
  keep_body_ = request_.method == "POST";
  body_left_ = request_.body_size;
  if (expects) {
    static const char go_on[] = "HTTP/1.1 100 Continue\r\n\r\n";
    if (::send(fd_, go_on, sizeof go_on - 1, MSG_NOSIGNAL) < 0)
      state_ = CLOSED;
  }
  return true;
}

void Connection::send(const Pattern* patterns) {
  while (state_ == SENDING) {
    ssize_t count;
    if (sent_ < answer_.head.size()) {
      iovec pieces[2] = {{answer_.head.data() + sent_, answer_.head.size() - sent_}, {nullptr, 0}};
      msghdr message = {};
      message.msg_iov = pieces;
      message.msg_iovlen = 1;
      if (answer_.pattern_left != 0 && answer_.pattern_left <= SMALL &&
          answer_.pattern_left <= Pattern::SIZE - answer_.pattern_at) {
        pieces[1] = {const_cast<char*>(patterns[answer_.pattern].bytes) + answer_.pattern_at,
                     static_cast<size_t>(answer_.pattern_left)};
        message.msg_iovlen = 2;
      }
      count = ::sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count > 0) {
        const size_t of_head = std::min(static_cast<size_t>(count), answer_.head.size() - sent_);
        sent_ += of_head;
        const uint64_t of_pattern = static_cast<uint64_t>(count) - of_head;
        answer_.pattern_left -= of_pattern;
        answer_.pattern_at = (answer_.pattern_at + of_pattern) % Pattern::SIZE;
      }
    } else if (answer_.pattern_left != 0) {
      off_t at = static_cast<off_t>(answer_.pattern_at);
      const uint64_t piece = std::min(answer_.pattern_left, Pattern::SIZE - answer_.pattern_at);
      count =
          ::sendfile(fd_, patterns[answer_.pattern].fd, &at, static_cast<size_t>(std::min<uint64_t>(piece, 4 << 20)));
      if (count > 0) {
        answer_.pattern_left -= static_cast<uint64_t>(count);
        answer_.pattern_at = (answer_.pattern_at + static_cast<uint64_t>(count)) % Pattern::SIZE;
      }
    } else {
      answer_ = Answer();
      sent_ = 0;
      state_ = READING;
      return;
    }
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0 && errno == EAGAIN)
      return;
    if (count <= 0)
      state_ = CLOSED;
  }
}
