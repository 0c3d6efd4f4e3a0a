#include "platform/s3/attribute_refusal.h"

namespace s3 {
namespace {

struct Refusal_Row {
  const char* code;
  unsigned kinds;
};

/// What services mean by their codes. "InvalidArgument" is said of storage classes and tags (radosgw 16),
/// "InvalidRequest" of locks in buckets without them.
constexpr Refusal_Row REFUSALS[] = {
    {"AccessControlListNotSupported", KIND_ACL},
    {"BadRequest", KIND_TAGS},
    {"InvalidArgument", KIND_STORAGE_CLASS | KIND_TAGS},
    {"InvalidObjectLockMode", KIND_LOCK},
    {"InvalidRedirectLocation", KIND_REDIRECT},
    {"InvalidRequest", KIND_LOCK},
    {"InvalidRetentionPeriod", KIND_LOCK},
    {"InvalidStorageClass", KIND_STORAGE_CLASS},
    {"InvalidTag", KIND_TAGS},
    {"MetadataTooLarge", KIND_METADATA},
    {"ObjectLockConfigurationNotFoundError", KIND_LOCK},
    {"RequestHeaderSectionTooLarge", KIND_METADATA},
};

/// Refusals that no attribute can have caused.
constexpr const char* OTHER_CAUSES[] = {"AccountProblem",    "AllAccessDisabled",    "AuthorizationHeaderMalformed",
                                        "EntityTooLarge",    "ExpiredToken",         "InvalidAccessKeyId",
                                        "InvalidBucketName", "InvalidSecurity",      "InvalidToken",
                                        "KeyTooLongError",   "MissingContentLength", "NoSuchBucket",
                                        "NoSuchUpload",      "QuotaExceeded",        "RequestTimeTooSkewed"};

/// The message without what stands in it about this one request.
std::string reason_of(const S3_Error& error) {
  const size_t request = error.message().rfind(" (");
  return error.code() + ": " + error.message().substr(0, request);
}

bool same_refusal(const S3_Error& a, const S3_Error& b) {
  return a.status() == b.status() && reason_of(a) == reason_of(b);
}

} // namespace

bool attributes_may_be_at_fault(const S3_Error& error) {
  if (error.retriable())
    return false;
  for (const char* code : OTHER_CAUSES)
    if (error.code() == code)
      return false;
  switch (error.status()) {
  case 400:
  case 403: // tags, access lists and locks want rights of their own; odd bytes in a header break some signatures
  case 405:
  case 409:
  case 413:
  case 422:
  case 431:
  case 501:
    return true;
  default:
    return false;
  }
}

unsigned suspected_kinds(const S3_Error& error) {
  for (const Refusal_Row& row : REFUSALS)
    if (error.code() == row.code)
      return row.kinds;
  return 0;
}

/// What makes one refusal hold for other objects too. User metadata and headers differ too much to be remembered.
std::string Attributed_Request::value_of(Attribute_Kind kind) const {
  switch (kind) {
  case KIND_STORAGE_CLASS:
    return attributes_.storage_class;
  case KIND_ACL:
    return canned_acl(attributes_);
  case KIND_LOCK:
    return attributes_.lock_mode + (attributes_.legal_hold ? " hold" : "");
  case KIND_CHECKSUM:
    return attributes_.checksums.empty() ? std::string() : attributes_.checksums.front().first;
  default:
    return std::string();
  }
}

void Attributed_Request::leave_out(const std::string& bucket, Attribute_Kind kind, const std::string& reason,
                                   bool learn) {
  refused_.push_back(s3::describe(attributes_, kind) + " (" + reason + ")");
  const bool for_all =
      reason.compare(0, 14, "NotImplemented") == 0 && (kind & (KIND_TAGS | KIND_CHECKSUM | KIND_REDIRECT));
  if (learn && (for_all || (kind & (KIND_STORAGE_CLASS | KIND_ACL | KIND_LOCK))))
    refusals_.refused(bucket, kind, value_of(kind), reason);
}

Outcome Attributed_Request::attempt_with(unsigned kinds) {
  Request request = *base_;
  append_headers(attributes_, kinds, multipart_, request.headers);
  Outcome outcome = (*attempt_)(request);
  if (outcome.ok())
    given_ = kinds;
  return outcome;
}

Outcome Attributed_Request::send(const Request& base, const Attempt& attempt) {
  base_ = &base;
  attempt_ = &attempt;
  refused_.clear();
  unsigned kinds = kinds_of(attributes_);
  for (unsigned kind = 1; kind != KIND_END; kind <<= 1) {
    if (!(kinds & kind))
      continue;
    const Attribute_Kind one = static_cast<Attribute_Kind>(kind);
    const std::string reason = refusals_.refusal(base.bucket, one, value_of(one));
    if (reason.empty())
      continue;
    kinds &= ~kind;
    leave_out(base.bucket, one, reason, false);
  }
  Outcome outcome = attempt_with(kinds);
  if (outcome.ok() || kinds == 0 || !attributes_may_be_at_fault(outcome.error) ||
      refusals_.refused_anyhow(base.bucket, outcome.error.code()))
    return outcome;
  return search(kinds, std::move(outcome));
}

Outcome Attributed_Request::search(unsigned kinds, Outcome first) {
  const std::string& bucket = base_->bucket;
  Outcome outcome = std::move(first);
  S3_Error minded = outcome.error;

  // One at a time, those that the answer points at first. Another answer than before means that one thing was minded
  // and another one still is.
  for (bool again = true; again && kinds != 0;) {
    again = false;
    const unsigned suspected = suspected_kinds(minded) & kinds;
    for (const unsigned round : {suspected, kinds & ~suspected}) {
      for (unsigned kind = 1; kind != KIND_END && !again; kind <<= 1) {
        if (!(round & kind))
          continue;
        outcome = attempt_with(kinds & ~kind);
        const Attribute_Kind one = static_cast<Attribute_Kind>(kind);
        if (outcome.ok()) {
          leave_out(bucket, one, reason_of(minded), true);
          return outcome;
        }
        if (!attributes_may_be_at_fault(outcome.error))
          return outcome;
        if (!same_refusal(outcome.error, minded)) {
          leave_out(bucket, one, reason_of(minded), true);
          kinds &= ~kind;
          minded = outcome.error;
          again = true;
        }
      }
    }
  }
  if (kinds == 0)
    return outcome;

  // Several are minded with one and the same answer: without all of them, and then back with each.
  outcome = attempt_with(0);
  if (!outcome.ok()) {
    refusals_.refuses_anyhow(bucket, outcome.error.code());
    return outcome;
  }
  unsigned taken = 0;
  for (unsigned kind = KIND_END >> 1; kind != 0; kind >>= 1) {
    if (!(kinds & kind))
      continue;
    const Outcome better = attempt_with(taken | kind);
    if (better.ok())
      taken |= kind;
    else
      leave_out(bucket, static_cast<Attribute_Kind>(kind), reason_of(better.error), true);
  }
  return outcome;
}

} // namespace s3
