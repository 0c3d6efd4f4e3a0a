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
    {CURLE_UNSUPPORTED_PROTOCOL, "NotHTTP", EPROTO, false},
    {CURLE_WEIRD_SERVER_REPLY, "NotHTTP", EPROTO, false},
    {CURLE_WRITE_ERROR, "AnswerTooLarge", EPROTO, false},
    {CURLE_OUT_OF_MEMORY, "OutOfMemory", ENOMEM, false},
};

struct Code_Row {
  const char* code;
  int number;
  bool retriable;
};

constexpr Code_Row CODES[] = {
    {"AccessDenied", EACCES, false},
    {"AccountProblem", EACCES, false},
    {"AllAccessDisabled", EACCES, false},
    {"BadDigest", EIO, true},
    {"BucketAlreadyExists", EEXIST, false},
    {"BucketAlreadyOwnedByYou", EEXIST, false},
    {"BucketNotEmpty", ENOTEMPTY, false},
    {"EntityTooLarge", EFBIG, false},
    {"ExpiredToken", EACCES, false},
    {"IncompleteBody", EIO, true},
    {"InternalError", EIO, true},
    {"InvalidAccessKeyId", EACCES, false},
    {"InvalidObjectState", EPERM, false},
    {"InvalidRange", ERANGE, false},
    {"KeyTooLongError", ENAMETOOLONG, false},
    {"MethodNotAllowed", EPERM, false},
    {"NoSuchBucket", ENOENT, false},
    {"NoSuchKey", ENOENT, false},
    {"NoSuchUpload", ENOENT, false},
    {"NoSuchVersion", ENOENT, false},
    {"NotImplemented", ENOTSUP, false},
    {"OperationAborted", EAGAIN, true},
    {"PreconditionFailed", ESTALE, false},
    {"QuotaExceeded", ENOSPC, false},
    {"RequestLimitExceeded", EAGAIN, true},
    {"RequestTimeTooSkewed", EACCES, false},
    {"RequestTimeout", ETIMEDOUT, true},
    {"ServiceUnavailable", EAGAIN, true},
    {"SignatureDoesNotMatch", EACCES, false},
    {"SlowDown", EAGAIN, true},
    {"Throttling", EAGAIN, true},
    {"ThrottlingException", EAGAIN, true},
    {"TooManyRequests", EAGAIN, true},
    {"XAmzContentSHA256Mismatch", EIO, true},
};

struct Status_Row {
  int status;
  const char* code;
  int number;
  bool retriable;
};

constexpr Status_Row STATUSES[] = {
    {301, "PermanentRedirect", ENXIO, false},
    {302, "Redirect", ENXIO, false},
    {307, "TemporaryRedirect", ENXIO, false},
    {308, "PermanentRedirect", ENXIO, false},
    {400, "BadRequest", EINVAL, false},
    {401, "Unauthorized", EACCES, false},
    {403, "AccessDenied", EACCES, false},
    {404, "NotFound", ENOENT, false},
    {405, "MethodNotAllowed", EPERM, false},
    {408, "RequestTimeout", ETIMEDOUT, true},
    {409, "Conflict", EEXIST, false},
    {411, "MissingContentLength", EINVAL, false},
    {412, "PreconditionFailed", ESTALE, false},
    {413, "EntityTooLarge", EFBIG, false},
    {416, "InvalidRange", ERANGE, false},
    {425, "TooEarly", EAGAIN, true},
    {429, "TooManyRequests", EAGAIN, true},
    {500, "InternalError", EIO, true},
    {501, "NotImplemented", ENOTSUP, false},
    {502, "BadGateway", EAGAIN, true},
    {503, "ServiceUnavailable", EAGAIN, true},
    {504, "GatewayTimeout", ETIMEDOUT, true},
    {505, "NotHTTP", EPROTO, false},
    {507, "InsufficientStorage", ENOSPC, false},
    {509, "BandwidthLimitExceeded", EAGAIN, true},
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
        retriable = row.retriable || status == 429 || status == 503;
        known = true;
        break;
      }
  if (!known)
    for (const Status_Row& row : STATUSES)
      if (status == row.status) {
        if (code.empty())
          code = row.code;
        number = row.number;
        retriable = row.retriable;
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
