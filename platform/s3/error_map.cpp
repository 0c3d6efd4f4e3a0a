#include "platform/s3/error_map.h"

#include <curl/curl.h>

#include <cerrno>
#include <cstring>

namespace s3 {
namespace {

struct Failure_Row {
  int curl;
  const char* code;
  int number;
  bool retriable;
};

constexpr Failure_Row FAILURES[] = {
    {CURLE_COULDNT_RESOLVE_HOST, "CouldNotResolveHost", EHOSTUNREACH, true},
    {CURLE_COULDNT_RESOLVE_PROXY, "CouldNotResolveProxy", EHOSTUNREACH, true},
    {CURLE_COULDNT_CONNECT, "CouldNotConnect", ECONNREFUSED, true},
    {CURLE_OPERATION_TIMEDOUT, "TimedOut", ETIMEDOUT, true},
    {CURLE_SEND_ERROR, "ConnectionBroken", ECONNRESET, true},
    {CURLE_RECV_ERROR, "ConnectionBroken", ECONNRESET, true},
    {CURLE_GOT_NOTHING, "ConnectionBroken", ECONNRESET, true},
    {CURLE_PARTIAL_FILE, "ConnectionBroken", ECONNRESET, true},
    {CURLE_PEER_FAILED_VERIFICATION, "CertificateNotTrusted", EACCES, false},
    {CURLE_SSL_CACERT_BADFILE, "CertificateFileUnreadable", EACCES, false},
    {CURLE_SSL_CERTPROBLEM, "CertificateNotTrusted", EACCES, false},
    {CURLE_URL_MALFORMAT, "InvalidURL", EINVAL, false},
    {CURLE_PROXY, "ProxyRefused", EPROTO, false},
    {CURLE_UNSUPPORTED_PROTOCOL, "NotHTTP", EPROTO, false},
    {CURLE_WEIRD_SERVER_REPLY, "NotHTTP", EPROTO, false},
    {CURLE_WRITE_ERROR, "AnswerTooLarge", EPROTO, false},
    {CURLE_OUT_OF_MEMORY, "OutOfMemory", ENOMEM, false},
};

/// What becomes of a request that failed so.
enum Fate {
  FINAL,     ///< repeating it does not help
  RETRIABLE, ///< repeating it may help
  BUSY       ///< the same, and the service asks for fewer requests
};

struct Code_Row {
  const char* code;
  int number;
  Fate fate;
};

constexpr Code_Row CODES[] = {
    {"AccessDenied", EACCES, FINAL},
    {"AccountProblem", EACCES, FINAL},
    {"AllAccessDisabled", EACCES, FINAL},
    {"AuthorizationHeaderMalformed", EACCES, FINAL},
    {"BadDigest", EIO, RETRIABLE},
    {"BandwidthLimitExceeded", EAGAIN, BUSY},
    {"BucketAlreadyExists", EEXIST, FINAL},
    {"BucketAlreadyOwnedByYou", EEXIST, FINAL},
    {"BucketNotEmpty", ENOTEMPTY, FINAL},
    {"EntityTooLarge", EFBIG, FINAL},
    {"ExpiredToken", EACCES, FINAL},
    {"IncompleteBody", EIO, RETRIABLE},
    {"InternalError", EIO, RETRIABLE},
    {"InternalServerError", EIO, RETRIABLE},
    {"InvalidAccessKeyId", EACCES, FINAL},
    {"InvalidBucketName", EINVAL, FINAL},
    {"InvalidObjectState", EPERM, FINAL},
    {"InvalidPart", EIO, FINAL},
    {"InvalidRange", ERANGE, FINAL},
    {"InvalidSecurity", EACCES, FINAL},
    {"InvalidToken", EACCES, FINAL},
    {"KeyTooLongError", ENAMETOOLONG, FINAL},
    {"MethodNotAllowed", EPERM, FINAL},
    {"NoSuchBucket", ENOENT, FINAL},
    {"NoSuchKey", ENOENT, FINAL},
    {"NoSuchUpload", ENOENT, FINAL},
    {"NoSuchVersion", ENOENT, FINAL},
    {"NotImplemented", ENOTSUP, FINAL},
    {"NotSignedUp", EACCES, FINAL},
    {"OperationAborted", EAGAIN, RETRIABLE},
    {"PreconditionFailed", ESTALE, FINAL},
    {"QuotaExceeded", ENOSPC, FINAL},
    {"RequestExpired", EACCES, FINAL},
    {"RequestLimitExceeded", EAGAIN, BUSY},
    {"RequestTimeTooSkewed", EACCES, FINAL},
    {"RequestTimeout", ETIMEDOUT, RETRIABLE},
    {"ServerBusy", EAGAIN, BUSY},
    {"ServiceUnavailable", EAGAIN, BUSY},
    {"SignatureDoesNotMatch", EACCES, FINAL},
    {"SlowDown", EAGAIN, BUSY},
    {"Throttling", EAGAIN, BUSY},
    {"ThrottledException", EAGAIN, BUSY},
    {"ThrottlingException", EAGAIN, BUSY},
    {"TokenRefreshRequired", EACCES, FINAL},
    {"TooManyRequests", EAGAIN, BUSY},
    {"UserSuspended", EACCES, FINAL},
    {"XAmzContentSHA256Mismatch", EIO, RETRIABLE},
};

/// What is said against the keys, whatever they were used for.
constexpr const char* KEY_CODES[] = {"AccountProblem",       "AllAccessDisabled",     "AuthorizationHeaderMalformed",
                                     "ExpiredToken",         "InvalidAccessKeyId",    "InvalidSecurity",
                                     "InvalidToken",         "NotSignedUp",           "RequestExpired",
                                     "RequestTimeTooSkewed", "SignatureDoesNotMatch", "TokenRefreshRequired",
                                     "UserSuspended"};

struct Status_Row {
  int status;
  const char* code;
  int number;
  Fate fate;
};

constexpr Status_Row STATUSES[] = {
    {301, "PermanentRedirect", ENXIO, FINAL},
    {302, "Redirect", ENXIO, FINAL},
    {307, "TemporaryRedirect", ENXIO, FINAL},
    {308, "PermanentRedirect", ENXIO, FINAL},
    {400, "BadRequest", EINVAL, FINAL},
    {401, "Unauthorized", EACCES, FINAL},
    {403, "AccessDenied", EACCES, FINAL},
    {404, "NotFound", ENOENT, FINAL},
    {405, "MethodNotAllowed", EPERM, FINAL},
    {408, "RequestTimeout", ETIMEDOUT, RETRIABLE},
    {409, "Conflict", EEXIST, FINAL},
    {411, "MissingContentLength", EINVAL, FINAL},
    {412, "PreconditionFailed", ESTALE, FINAL},
    {413, "EntityTooLarge", EFBIG, FINAL},
    {416, "InvalidRange", ERANGE, FINAL},
    {425, "TooEarly", EAGAIN, RETRIABLE},
    {429, "TooManyRequests", EAGAIN, BUSY},
    {500, "InternalError", EIO, RETRIABLE},
    {501, "NotImplemented", ENOTSUP, FINAL},
    {502, "BadGateway", EAGAIN, RETRIABLE},
    {503, "ServiceUnavailable", EAGAIN, BUSY},
    {504, "GatewayTimeout", ETIMEDOUT, RETRIABLE},
    {505, "NotHTTP", EPROTO, FINAL},
    {507, "InsufficientStorage", ENOSPC, FINAL},
    {509, "BandwidthLimitExceeded", EAGAIN, BUSY},
};

} // namespace

S3_Error map_failure(const HTTP_Failure& failure, const std::string& what) {
  if (failure.cancelled)
    return S3_Error(ECANCELED, 0, "Cancelled", "the job is being cancelled (" + what + ")", false);
  const std::string message = failure.text + " (" + what + ")";
  for (const Failure_Row& row : FAILURES)
    if (row.curl == failure.code)
      return S3_Error(row.number, 0, row.code, message, row.retriable);
  if (failure.code == CURLE_SSL_CONNECT_ERROR) {
    // A handshake that the network broke may succeed again; one that the peers could not agree on will not.
    const bool broken = failure.os_errno == ECONNRESET || failure.os_errno == EPIPE || failure.os_errno == ETIMEDOUT;
    return S3_Error(EPROTO, 0, "TLSHandshakeFailed", message, broken);
  }
  return S3_Error(EIO, 0, "TransportError", message, false);
}

Blame blames(const S3_Error& error) {
  if (error.number() == 0 || error.number() == ECANCELED || error.number() == ENOMEM)
    return Blame::OBJECT;
  if (error.status() == 0) {
    for (const Failure_Row& row : FAILURES)
      if (error.code() == row.code)
        return row.number == EINVAL || row.curl == CURLE_WRITE_ERROR ? Blame::OBJECT : Blame::SERVICE;
    return error.code() == "TLSHandshakeFailed" || error.code() == "TransportError" ? Blame::SERVICE : Blame::OBJECT;
  }
  for (const char* code : KEY_CODES)
    if (error.code() == code)
      return Blame::SERVICE;
  if (error.status() == 401 || error.status() == 429)
    return Blame::SERVICE;
  if (error.status() == 403)
    return error.number() == EACCES ? Blame::DENIAL : Blame::OBJECT;
  return error.status() >= 500 && error.status() != 501 && error.status() != 505 && error.status() != 507
             ? Blame::SERVICE
             : Blame::OBJECT;
}

bool is_busy(const S3_Error& error) {
  for (const Code_Row& row : CODES)
    if (row.fate == BUSY && error.code() == row.code)
      return true;
  for (const Status_Row& row : STATUSES)
    if (row.fate == BUSY && error.status() == row.status)
      return true;
  return false;
}

S3_Error map_answer(int status, const Error_Document& document, const std::string& what) {
  std::string code = document.code;
  int number = EIO;
  bool retriable = status >= 500 && status != 501;
  bool known = false;
  if (!code.empty())
    for (const Code_Row& row : CODES)
      if (code == row.code) {
        number = row.number;
        // Codes that the status overrules: a service that says "busy" is believed.
        retriable = row.fate != FINAL || status == 429 || status == 503;
        known = true;
        break;
      }
  if (!known)
    for (const Status_Row& row : STATUSES)
      if (status == row.status) {
        if (code.empty())
          code = row.code;
        number = row.number;
        retriable = row.fate != FINAL;
        known = true;
        break;
      }
  if (!known && status >= 400 && status < 500)
    number = EINVAL;
  if (code.empty())
    code = "HTTP" + std::to_string(status);
  std::string message = document.message.empty() ? "the service gave no reason" : document.message;
  message += " (" + what + ", HTTP " + std::to_string(status);
  if (!document.request_id.empty())
    message += ", request " + document.request_id;
  return S3_Error(number, status, code, message + ")", retriable);
}

} // namespace s3
