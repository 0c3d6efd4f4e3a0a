#include "platform/s3/error_map.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(Error_Map, failures_without_an_answer) {
  struct Row {
    CURLcode curl;
    int os_errno;
    const char* code;
    int number;
    bool retriable;
  };
  const Row rows[] = {
      {CURLE_COULDNT_RESOLVE_HOST, 0, "CouldNotResolveHost", EHOSTUNREACH, true},
      {CURLE_COULDNT_CONNECT, ECONNREFUSED, "CouldNotConnect", ECONNREFUSED, true},
      {CURLE_OPERATION_TIMEDOUT, 0, "TimedOut", ETIMEDOUT, true},
      {CURLE_SEND_ERROR, EPIPE, "ConnectionBroken", ECONNRESET, true},
      {CURLE_RECV_ERROR, ECONNRESET, "ConnectionBroken", ECONNRESET, true},
      {CURLE_GOT_NOTHING, 0, "ConnectionBroken", ECONNRESET, true},
      {CURLE_PARTIAL_FILE, 0, "ConnectionBroken", ECONNRESET, true},
      {CURLE_PEER_FAILED_VERIFICATION, 0, "CertificateNotTrusted", EACCES, false},
      {CURLE_SSL_CACERT_BADFILE, 0, "CertificateFileUnreadable", EACCES, false},
      {CURLE_SSL_CONNECT_ERROR, 0, "TLSHandshakeFailed", EPROTO, false},
      {CURLE_SSL_CONNECT_ERROR, ECONNRESET, "TLSHandshakeFailed", EPROTO, true},
      {CURLE_URL_MALFORMAT, 0, "InvalidURL", EINVAL, false},
      {CURLE_WEIRD_SERVER_REPLY, 0, "NotHTTP", EPROTO, false},
      {CURLE_OUT_OF_MEMORY, 0, "OutOfMemory", ENOMEM, false},
      {CURLE_BAD_FUNCTION_ARGUMENT, 0, "TransportError", EIO, false},
  };
  for (const Row& row : rows) {
    const S3_Error error = s3::map_failure(HTTP_Failure{row.curl, row.os_errno, false, "why"}, "GET x");
    EXPECT_EQ(row.code, error.code()) << row.curl;
    EXPECT_EQ(row.number, error.number()) << row.curl;
    EXPECT_EQ(row.retriable, error.retriable()) << row.curl;
    EXPECT_EQ(0, error.status());
    EXPECT_EQ("why (GET x)", error.message());
  }
}

TEST(Error_Map, cancelled_request_is_never_repeated) {
  const S3_Error error = s3::map_failure(HTTP_Failure{CURLE_ABORTED_BY_CALLBACK, 0, true, ""}, "GET x");
  EXPECT_EQ("Cancelled", error.code());
  EXPECT_EQ(ECANCELED, error.number());
  EXPECT_FALSE(error.retriable());
}

TEST(Error_Map, answers) {
  struct Row {
    int status;
    const char* document; ///< its code, or empty for none
    const char* code;
    int number;
    bool retriable;
  };
  const Row rows[] = {
      {404, "NoSuchKey", "NoSuchKey", ENOENT, false},
      {404, "NoSuchBucket", "NoSuchBucket", ENOENT, false},
      {404, "", "NotFound", ENOENT, false},
      {403, "AccessDenied", "AccessDenied", EACCES, false},
      {403, "SignatureDoesNotMatch", "SignatureDoesNotMatch", EACCES, false},
      {403, "InvalidObjectState", "InvalidObjectState", EPERM, false},
      {403, "", "AccessDenied", EACCES, false},
      {403, "SomethingOfTheirOwn", "SomethingOfTheirOwn", EACCES, false},
      {412, "", "PreconditionFailed", ESTALE, false},
      {416, "InvalidRange", "InvalidRange", ERANGE, false},
      {409, "BucketAlreadyExists", "BucketAlreadyExists", EEXIST, false},
      {409, "OperationAborted", "OperationAborted", EAGAIN, true},
      {400, "RequestTimeout", "RequestTimeout", ETIMEDOUT, true},
      {400, "BadDigest", "BadDigest", EIO, true},
      {400, "InvalidArgument", "InvalidArgument", EINVAL, false},
      {418, "", "HTTP418", EINVAL, false},
      {429, "", "TooManyRequests", EAGAIN, true},
      {500, "InternalError", "InternalError", EIO, true},
      {501, "NotImplemented", "NotImplemented", ENOTSUP, false},
      {501, "", "NotImplemented", ENOTSUP, false},
      {502, "", "BadGateway", EAGAIN, true},
      {503, "SlowDown", "SlowDown", EAGAIN, true},
      {503, "", "ServiceUnavailable", EAGAIN, true},
      {504, "", "GatewayTimeout", ETIMEDOUT, true},
      {599, "", "HTTP599", EIO, true},
      {507, "", "InsufficientStorage", ENOSPC, false},
      {200, "SlowDown", "SlowDown", EAGAIN, true},
      {200, "InternalError", "InternalError", EIO, true},
      {301, "", "PermanentRedirect", ENXIO, false},
  };
  for (const Row& row : rows) {
    s3::Error_Document document;
    document.code = row.document;
    const S3_Error error = s3::map_answer(row.status, document, "GET x");
    EXPECT_EQ(row.code, error.code()) << row.status << row.document;
    EXPECT_EQ(row.number, error.number()) << row.status << row.document;
    EXPECT_EQ(row.retriable, error.retriable()) << row.status << row.document;
    EXPECT_EQ(row.status, error.status());
  }
}

TEST(Error_Map, a_service_that_asks_for_fewer_requests_is_busy) {
  for (const int status : {429, 503, 509})
    EXPECT_TRUE(s3::is_busy(s3::map_answer(status, {}, ""))) << status;
  for (const char* code : {"SlowDown", "ServiceUnavailable", "Throttling", "RequestLimitExceeded", "TooManyRequests"}) {
    s3::Error_Document document;
    document.code = code;
    EXPECT_TRUE(s3::is_busy(s3::map_answer(200, document, ""))) << code;
  }
  for (const int status : {200, 400, 403, 404, 408, 500, 502, 504})
    EXPECT_FALSE(s3::is_busy(s3::map_answer(status, {}, ""))) << status;
  s3::Error_Document document;
  document.code = "InternalError";
  EXPECT_FALSE(s3::is_busy(s3::map_answer(500, document, "")));
  EXPECT_FALSE(s3::is_busy(S3_Error()));
}

TEST(Error_Map, message_names_the_reason_the_request_and_its_number) {
  s3::Error_Document document;
  document.code = "AccessDenied";
  document.message = "No.";
  document.request_id = "17";
  EXPECT_EQ("AccessDenied: No. (GET http://h/b, HTTP 403, request 17)",
            s3::map_answer(403, document, "GET http://h/b").text());
}

TEST(Error_Map, blame_is_the_services_where_any_other_request_had_failed_likewise) {
  struct Row {
    int number;
    int status;
    const char* code;
    s3::Blame blame;
  };
  const Row rows[] = {
      {0, 0, "", s3::Blame::OBJECT},
      {ECANCELED, 0, "Cancelled", s3::Blame::OBJECT},
      {ENOMEM, 0, "OutOfMemory", s3::Blame::OBJECT},
      {ECONNREFUSED, 0, "CouldNotConnect", s3::Blame::SERVICE},
      {EHOSTUNREACH, 0, "CouldNotResolveHost", s3::Blame::SERVICE},
      {ETIMEDOUT, 0, "TimedOut", s3::Blame::SERVICE},
      {ECONNRESET, 0, "ConnectionBroken", s3::Blame::SERVICE},
      {EACCES, 0, "CertificateNotTrusted", s3::Blame::SERVICE},
      {EPROTO, 0, "TLSHandshakeFailed", s3::Blame::SERVICE},
      {EINVAL, 0, "InvalidURL", s3::Blame::OBJECT},
      {EPROTO, 0, "AnswerTooLarge", s3::Blame::OBJECT},
      {EIO, 500, "InternalError", s3::Blame::SERVICE},
      {EAGAIN, 502, "BadGateway", s3::Blame::SERVICE},
      {EAGAIN, 503, "SlowDown", s3::Blame::SERVICE},
      {EAGAIN, 429, "TooManyRequests", s3::Blame::SERVICE},
      {ENOTSUP, 501, "NotImplemented", s3::Blame::OBJECT},
      {ENOSPC, 507, "InsufficientStorage", s3::Blame::OBJECT},
      {EACCES, 401, "Unauthorized", s3::Blame::SERVICE},
      {EACCES, 403, "InvalidAccessKeyId", s3::Blame::SERVICE},
      {EACCES, 403, "SignatureDoesNotMatch", s3::Blame::SERVICE},
      {EACCES, 403, "RequestExpired", s3::Blame::SERVICE},
      {EACCES, 400, "ExpiredToken", s3::Blame::SERVICE},
      {EACCES, 403, "AccessDenied", s3::Blame::DENIAL},
      {EPERM, 403, "InvalidObjectState", s3::Blame::OBJECT},
      {ENOENT, 404, "NoSuchKey", s3::Blame::OBJECT},
      {ESTALE, 412, "PreconditionFailed", s3::Blame::OBJECT},
  };
  for (const Row& row : rows)
    EXPECT_EQ(row.blame, s3::blames(S3_Error(row.number, row.status, row.code, "", false)))
        << row.status << " " << row.code;
}

} // namespace
