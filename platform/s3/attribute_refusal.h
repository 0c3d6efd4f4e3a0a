#pragma once

#include "platform/s3/attribute_headers.h"
#include "platform/s3/attribute_memory.h"
#include "platform/s3/transport.h"

#include <functional>
#include <string>
#include <vector>

namespace s3 {

/// Sends a request that gives an object its attributes, and finds out what the target minds: a request that it refuses
/// is sent again without the kind that its answer points at, then without each of the others in turn, until it is taken
/// or refused for a reason of its own. One object, one thread.
class Attributed_Request {
public:
  typedef std::function<Outcome(const Request&)> Attempt;

  /// `attributes` has been made sendable. `multipart`: the request begins a multipart upload.
  Attributed_Request(const Object_Attributes& attributes, bool multipart, Attribute_Memory& refusals)
      : attributes_(attributes), multipart_(multipart), refusals_(refusals) {}

  /// Sends `base` with the attributes; `attempt` sends one request, with its repetitions. A request that was taken may
  /// be followed by a better one.
  Outcome send(const Request& base, const Attempt& attempt);
  /// A text for each kind that the object went without, with the reason.
  const std::vector<std::string>& refused() const { return refused_; }
  /// The kinds that the object was given.
  unsigned given() const { return given_; }

private:
  Outcome attempt_with(unsigned kinds);
  Outcome search(unsigned kinds, Outcome first);
  void leave_out(const std::string& bucket, Attribute_Kind kind, const std::string& reason, bool learn);
  std::string value_of(Attribute_Kind kind) const;

  const Object_Attributes& attributes_;
  const bool multipart_;
  Attribute_Memory& refusals_;
  const Request* base_ = nullptr;
  const Attempt* attempt_ = nullptr;
  unsigned given_ = 0;
  std::vector<std::string> refused_;
};

/// Whether a request that failed so may succeed with fewer attributes, and the kinds that its answer points at.
bool attributes_may_be_at_fault(const S3_Error& error);
unsigned suspected_kinds(const S3_Error& error);

} // namespace s3
