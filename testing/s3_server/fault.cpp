#include "testing/s3_server/fault.h"

#include <algorithm>

namespace s3_testing {

Fault Fault::error(int status, std::string code, int retry_after) {
  Fault fault(Kind::error);
  fault.status_ = status;
  fault.code_ = std::move(code);
  fault.retry_after_ = retry_after;
  return fault;
}

Fault Fault::error_in_200(std::string code) {
  Fault fault(Kind::error_in_200);
  fault.status_ = 200;
  fault.code_ = std::move(code);
  return fault;
}

Fault Fault::redirect(int status, std::string region, std::string location) {
  Fault fault(Kind::redirect);
  fault.status_ = status;
  fault.code_ = std::move(region);
  fault.location_ = std::move(location);
  return fault;
}

Fault Fault::no_reply() {
  return Fault(Kind::no_reply);
}

Fault Fault::cut_upload(std::uint64_t bytes) {
  Fault fault(Kind::cut_upload);
  fault.bytes_ = bytes;
  return fault;
}

Fault Fault::cut(std::uint64_t body_bytes) {
  Fault fault(Kind::cut);
  fault.bytes_ = body_bytes;
  return fault;
}

Fault Fault::stall(std::uint64_t body_bytes, int milliseconds) {
  Fault fault(Kind::stall);
  fault.bytes_ = body_bytes;
  fault.milliseconds_ = milliseconds;
  return fault;
}

Fault Fault::wrong_length(std::int64_t delta) {
  Fault fault(Kind::wrong_length);
  fault.delta_ = delta;
  return fault;
}

Fault Fault::change_object(std::uint64_t body_bytes, bool then_cut, std::optional<std::string> content) {
  Fault fault(Kind::change_object);
  fault.bytes_ = body_bytes;
  fault.then_cut_ = then_cut;
  fault.content_ = std::move(content);
  return fault;
}

Fault Fault::flip_byte(std::uint64_t offset) {
  Fault fault(Kind::flip_byte);
  fault.bytes_ = offset;
  return fault;
}

Fault Fault::empty_body() {
  return Fault(Kind::empty_body);
}
Fault Fault::garbage_body() {
  return Fault(Kind::garbage_body);
}

Fault Fault::truncated_body(std::uint64_t bytes) {
  Fault fault(Kind::truncated_body);
  fault.bytes_ = bytes;
  return fault;
}

Fault Fault::delay(int milliseconds) {
  Fault fault(Kind::delay);
  fault.milliseconds_ = milliseconds;
  return fault;
}

Fault Fault::repeat_page() {
  return Fault(Kind::repeat_page);
}
Fault Fault::no_next_marker() {
  return Fault(Kind::no_next_marker);
}
Fault Fault::empty_next_marker() {
  return Fault(Kind::empty_next_marker);
}
Fault Fault::refuse_connection() {
  return Fault(Kind::refuse_connection);
}

Fault& Fault::reply_header(std::string name, std::string value) {
  reply_headers_.emplace_back(std::move(name), std::move(value));
  return *this;
}
Fault& Fault::on(std::string operation) {
  operation_ = std::move(operation);
  return *this;
}
Fault& Fault::method(std::string method) {
  method_ = std::move(method);
  return *this;
}
Fault& Fault::bucket(std::string bucket) {
  bucket_ = std::move(bucket);
  return *this;
}
Fault& Fault::key(std::string glob) {
  key_ = std::move(glob);
  return *this;
}
Fault& Fault::when(std::function<bool(const Request_Info&)> predicate) {
  predicate_ = std::move(predicate);
  return *this;
}
Fault& Fault::from_nth(std::uint64_t nth) {
  from_nth_ = nth;
  return *this;
}
Fault& Fault::times(std::uint64_t count) {
  left_ = count;
  return *this;
}
Fault& Fault::probability(double chance) {
  probability_ = chance;
  return *this;
}

bool glob_match(std::string_view pattern, std::string_view text) {
  std::size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*')
    ++p;
  return p == pattern.size();
}

void Fault_Script::add(Fault fault) {
  std::lock_guard guard(lock_);
  faults_.push_back(std::move(fault));
}

void Fault_Script::clear() {
  std::lock_guard guard(lock_);
  faults_.clear();
}

bool Fault_Script::strikes(Fault& fault) {
  if (fault.left_ == 0 || ++fault.met_ < fault.from_nth_)
    return false;
  // Not std::uniform_real_distribution: its sequence may differ between libraries, and a seed must reproduce a run.
  if (fault.probability_ < 1 && static_cast<double>(random_() >> 11) * 0x1.0p-53 >= fault.probability_)
    return false;
  if (fault.left_ != Fault::forever)
    --fault.left_;
  ++struck_;
  return true;
}

std::vector<Fault> Fault_Script::strike(const Request_Info& request) {
  std::vector<Fault> out;
  std::lock_guard guard(lock_);
  for (Fault& fault : faults_) {
    if (fault.kind_ == Fault::Kind::refuse_connection ||
        (!fault.operation_.empty() && !glob_match(fault.operation_, request.operation)) ||
        (!fault.method_.empty() && fault.method_ != request.method) ||
        (!fault.bucket_.empty() && fault.bucket_ != request.bucket) ||
        (!fault.key_.empty() && !glob_match(fault.key_, request.key)) ||
        (fault.predicate_ && !fault.predicate_(request)) || !strikes(fault))
      continue;
    out.push_back(fault);
  }
  return out;
}

bool Fault_Script::strike_connection() {
  std::lock_guard guard(lock_);
  return std::any_of(faults_.begin(), faults_.end(),
                     [this](Fault& fault) { return fault.kind_ == Fault::Kind::refuse_connection && strikes(fault); });
}

std::uint64_t Fault_Script::struck() const {
  std::lock_guard guard(lock_);
  return struck_;
}

} // namespace s3_testing
