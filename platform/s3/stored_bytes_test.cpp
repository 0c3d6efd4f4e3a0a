#include "platform/s3/client_fixture.h"
#include "platform/s3/digest.h"
#include "testing/s3_server/raw_server.h"

namespace {

/// A service that answers a PUT with `etag` and a GET with `stored`, whatever it was sent.
class Odd_Service {
public:
  Odd_Service(const std::string& etag, const std::string& stored, const std::string& header = std::string())
      : raw_("HTTP/1.1 200 OK\r\nETag: \"" + etag + "\"\r\nLast-Modified: Wed, 01 Jan 2020 00:00:00 GMT\r\n" + header +
             "Connection: close\r\nContent-Length: " + std::to_string(stored.size()) + "\r\n\r\n" + stored) {}

  /// The code of the error; empty where it was stored.
  std::string store(const std::string& data) {
    const auto ledger = std::make_shared<S3_Ledger>();
    S3_Service_Options options;
    options.type = "http";
    options.host = "127.0.0.1";
    options.port = raw_.port();
    options.access_key = options.secret_key = "x";
    options.ledger = ledger;
    const S3_Service_var s = make_s3_service(options);
    const S3_IWriter_ptr writer = s->upload("bucket", "key", data.size());
    EXPECT_TRUE(writer);
    EXPECT_EQ(static_cast<int>(data.size()), writer->write(data.data(), data.size()));
    const bool stored = writer->close();
    requests = ledger->requests;
    const std::optional<S3_Error> error = ledger->take_failure_here();
    EXPECT_EQ(stored, !error.has_value());
    message = error ? error->message() : std::string();
    return error ? error->code() : std::string();
  }

  unsigned long long requests = 0; ///< of the last `store`
  std::string message;

private:
  s3_testing::Raw_Server raw_;
};

constexpr const char* OTHER = "0123456789abcdef0123456789abcdef";

TEST(Stored_Bytes, service_that_stored_other_bytes_is_named) {
  for (const char* stored : {"nonsense", "content and more", "cont", ""}) {
    Odd_Service service(OTHER, stored);
    EXPECT_EQ("StoredOtherBytes", service.store("content")) << stored;
    EXPECT_NE(std::string::npos, service.message.find(OTHER)) << service.message;
    EXPECT_NE(std::string::npos, service.message.find(s3::to_hex(s3::md5("content")))) << service.message;
    EXPECT_NE(std::string::npos, service.message.find("/bucket/key")) << service.message;
  }
}

TEST(Stored_Bytes, digest_of_what_was_sent_needs_no_look) {
  Odd_Service service(s3::to_hex(s3::md5("content")), "nobody reads that");
  EXPECT_EQ("", service.store("content"));
  EXPECT_EQ(1u, service.requests);
}

TEST(Stored_Bytes, service_whose_etags_are_something_else_is_looked_at_once) {
  Odd_Service service(OTHER, "content");
  EXPECT_EQ("", service.store("content"));
  EXPECT_EQ(2u, service.requests);
  EXPECT_EQ("", service.store("content"));
  EXPECT_EQ(1u, service.requests);
}

TEST(Stored_Bytes, etag_that_cannot_be_a_digest_of_the_content_tells_nothing) {
  EXPECT_EQ("", Odd_Service("abc-2", "nonsense").store("content"));
  EXPECT_EQ("", Odd_Service(OTHER, "nonsense", "x-amz-server-side-encryption: aws:kms\r\n").store("content"));
  EXPECT_EQ(
      "",
      Odd_Service(OTHER, "nonsense", "x-amz-server-side-encryption-customer-algorithm: AES256\r\n").store("content"));
  EXPECT_EQ("StoredOtherBytes",
            Odd_Service(OTHER, "nonsense", "x-amz-server-side-encryption: AES256\r\n").store("content"));
}

} // namespace
