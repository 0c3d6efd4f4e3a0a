#include "platform/s3/upload.h"

#include "platform/s3/attribute_refusal.h"
#include "platform/s3/checksum.h"
#include "platform/s3/digest.h"
#include "platform/s3/object_extras.h"
#include "platform/s3/part_plan.h"
#include "platform/s3/part_sender.h"
#include "platform/s3/transport.h"
#include "sdk/base/clock.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <mutex>
#include <set>
#include <vector>

namespace s3 {
namespace {

/// Services whose ETags turned out to be something else than the MD5 of what they were sent, as long as the process
/// runs.
class Services_With_Other_ETags {
public:
  static bool know(const Address& address) {
    const std::lock_guard<std::mutex> guard(mutex());
    return all().count(name(address)) != 0;
  }
  static void learn(const Address& address) {
    const std::lock_guard<std::mutex> guard(mutex());
    all().insert(name(address));
  }

private:
  static std::string name(const Address& address) { return address.host + ':' + std::to_string(address.port); }
  static std::mutex& mutex() {
    static std::mutex* guards_all = new std::mutex;
    return *guards_all;
  }
  static std::set<std::string>& all() {
    static std::set<std::string>* names = new std::set<std::string>;
    return *names;
  }
};

/// The ETag where it has the form of an MD5 and no encryption makes it something else; else empty.
std::string md5_of_etag(const HTTP_Head& head) {
  const std::string& encryption = head.value("x-amz-server-side-encryption");
  if ((!encryption.empty() && encryption != "AES256") ||
      head.find("x-amz-server-side-encryption-customer-algorithm") != nullptr)
    return std::string();
  Object_Attributes attributes;
  attributes.etag = head.value("etag");
  std::erase(attributes.etag, '"');
  return attributes.content_md5();
}

/// What both kinds of upload share: the declared size, the piece that is being filled, and the object's attributes.
class Upload : public S3_IWriter, public S3_Attribute_Report {
public:
  Upload(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key, ACE_UINT64 size,
         const Part_Plan& plan, const Object_Attributes* attributes, int max_retry_seconds)
      : transport_(std::move(endpoint)), bucket_(bucket), key_(key), size_(size), plan_(plan),
        piece_(static_cast<size_t>(plan_.next())), max_retry_seconds_(max_retry_seconds) {
    if (attributes == nullptr)
      return;
    attributes_ = *attributes;
    make_sendable(attributes_, Clock::instance().now(), refused_);
    keep_fitting_checksums(attributes_, plan.multipart(), refused_);
    if (!plan.refused().empty())
      refused_.push_back("the layout of its parts: " + plan.refused());
  }

  /// Waits for memory where the parts are larger than usual.
  bool reserve() {
    return plan_.largest() <= transport_.endpoint().part_size() ||
           share_.take(std::min<ACE_UINT64>(plan_.largest(), size_));
  }

  const std::vector<std::string>& refused() const override { return refused_; }

  int write(const char* data, size_t length) override {
    if (failed_ || closed_ || !data)
      return -1;
    try {
      if (buffer_.size() == piece_ && written_ < size_ && !flush())
        return -1;
      const ACE_UINT64 room = std::min<ACE_UINT64>(size_ - written_, piece_ - buffer_.size());
      const size_t taken = static_cast<size_t>(std::min<ACE_UINT64>(std::min<ACE_UINT64>(length, room), INT_MAX));
      // A part that was sent off took its memory along.
      const size_t whole = static_cast<size_t>(std::min<ACE_UINT64>(size_ - written_, piece_));
      if (buffer_.empty() && buffer_.capacity() < whole)
        buffer_.reserve(whole);
      buffer_.append(data, taken);
      written_ += taken;
      return static_cast<int>(taken);
    } catch (const std::bad_alloc&) {
      return give_up(S3_Error(ENOMEM, 0, "OutOfMemory", "no memory for a part of the object", false)), -1;
    }
  }

  bool close() override {
    if (closed_ || failed_)
      return closed_ && !failed_;
    closed_ = true;
    if (written_ != size_)
      return give_up(
          S3_Error(EINVAL, 0, "IncompleteBody",
                   "only " + std::to_string(written_) + " of " + std::to_string(size_) + " bytes were written", false));
    return finish();
  }

protected:
  /// Sends the piece that is full.
  virtual bool flush() = 0;
  /// Sends the last piece and makes the object appear.
  virtual bool finish() = 0;

  /// Sends `base` with the object's attributes.
  Outcome send_attributed(const Request& base, bool multipart, const Attributed_Request::Attempt& attempt) {
    Attributed_Request request(attributes_, multipart, transport_.endpoint().attributes());
    Outcome outcome = request.send(base, attempt);
    if (outcome.ok()) {
      refused_.insert(refused_.end(), request.refused().begin(), request.refused().end());
      given_ = request.given();
    }
    return outcome;
  }

  /// Gives the stored object what its upload could not carry.
  void give_extras(bool multipart) {
    Object_Extras(transport_, bucket_, key_, max_retry_seconds_).give(attributes_, given_, multipart, refused_);
  }

  Request request(const char* method) const { return Request{method, bucket_, key_, {}, {}, false, {}}; }

  /// Always false. Says why, for the caller has no other way to tell.
  bool give_up(const S3_Error& error) {
    if (!failed_) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to store object '%C' in bucket '%C', error: %C.\n"), key_.c_str(),
                 bucket_.c_str(), error.text().c_str()));
      transport_.endpoint().ledger()->failed_here(error);
    }
    failed_ = true;
    return false;
  }

  void sent(size_t bytes) { transport_.endpoint().ledger()->bytes_written.fetch_add(bytes, std::memory_order_relaxed); }

  Transport transport_;
  const std::string bucket_;
  const std::string key_;
  const ACE_UINT64 size_;
  Part_Plan plan_;
  size_t piece_; ///< bytes of the part being filled
  const int max_retry_seconds_;
  std::string buffer_;
  ACE_UINT64 written_ = 0;
  bool failed_ = false;
  bool closed_ = false;
  Object_Attributes attributes_;
  unsigned given_ = 0; ///< kinds of them
  std::vector<std::string> refused_;
  Large_Part_Share share_;
};

class Single_Upload final : public Upload {
public:
  using Upload::Upload;

protected:
  bool flush() override { return true; }
  bool finish() override {
    Request put = request("PUT");
    put.has_body = true;
    put.body = buffer_;
    // Services want a digest of what an object lock shall protect (AWS refuses the request without one).
    if (kinds_of(attributes_) & KIND_LOCK)
      put.headers.emplace_back("content-md5", to_base64(md5(buffer_)));
    const Outcome outcome = send_attributed(put, false, [&](const Request& attributed) {
      return retried(max_retry_seconds_, [&] { return transport_.ask(attributed); });
    });
    if (!outcome.ok())
      return give_up(outcome.error);
    sent(buffer_.size());
    if (const S3_Error other = check_stored(outcome.head); other.number() != 0)
      return give_up(other);
    give_extras(false);
    return true;
  }

private:
  /// The ETag of what was stored at once is the MD5 of its bytes with most services. Where it is not the one of what
  /// was sent, the object is read again, once for each service: it may only be that this one counts otherwise.
  S3_Error check_stored(const HTTP_Head& head) {
    const std::string etag = md5_of_etag(head);
    if (etag.empty() || etag == attributes_.content_md5())
      return S3_Error();
    const std::string sent = to_hex(md5(buffer_));
    const Address address = transport_.endpoint().address(bucket_);
    if (sent.empty() || etag == sent || Services_With_Other_ETags::know(address))
      return S3_Error();
    Outcome outcome;
    const Curl_Connection_ref connection = transport_.open(request("GET"), outcome);
    if (!connection || !outcome.ok()) {
      ACE_ERROR((LM_WARNING,
                 ACE_TEXT("Whether object '%C' in bucket '%C' was stored as it was sent cannot be told, error: %C.\n"),
                 key_.c_str(), bucket_.c_str(), outcome.error.text().c_str()));
      return S3_Error();
    }
    if (holds_buffer(*connection)) {
      Services_With_Other_ETags::learn(address);
      return S3_Error();
    }
    return S3_Error(EIO, head.status, "StoredOtherBytes",
                    "the service stored other bytes than it was sent: its ETag is " + etag +
                        ", the MD5 of what was sent " + sent + " (" + transport_.describe(request("PUT")) + ")",
                    false);
  }

  bool holds_buffer(Curl_Connection& connection) const {
    std::vector<char> piece(64 * 1024);
    size_t at = 0, got;
    while ((got = connection.read(piece.data(), piece.size())) > 0) {
      if (got > buffer_.size() - at || buffer_.compare(at, got, piece.data(), got) != 0)
        return false;
      at += got;
    }
    return at == buffer_.size() && connection.failure().code == 0 && !connection.failure().cancelled;
  }
};

class Multipart_Upload final : public Upload {
public:
  using Upload::Upload;

  ~Multipart_Upload() override {
    sender_.stop();
    try {
      transport_.finish_despite_cancel();
      abort();
    } catch (...) {
      // Nothing more can be done for it here; services let unfinished uploads expire.
    }
  }

  Outcome begin() {
    Request post = request("POST");
    post.query.emplace_back("uploads", "");
    post.has_body = true;
    return send_attributed(post, true, [&](const Request& attributed) {
      return retried(max_retry_seconds_, [&] {
        Text_Reader reader("InitiateMultipartUploadResult", "UploadId");
        Outcome outcome = transport_.ask(attributed, reader);
        if (outcome.ok() && reader.text().empty())
          outcome.error = S3_Error(EPROTO, outcome.head.status, "MalformedAnswer",
                                   "the answer names no upload (" + transport_.describe(post) + ")", false);
        if (outcome.ok()) {
          // One that was begun with fewer attributes.
          abort();
          upload_id_ = reader.text();
        }
        return outcome;
      });
    });
  }

protected:
  bool flush() override {
    Name_Values headers;
    if (given_ & KIND_LOCK)
      headers.emplace_back("content-md5", to_base64(md5(buffer_)));
    const std::string algorithm = checksum_algorithm();
    if (!algorithm.empty()) {
      checksums_.push_back(checksum(algorithm, buffer_));
      headers.emplace_back("x-amz-checksum-" + algorithm, checksums_.back());
    }
    if (!sender_.send(upload_id_, buffer_, headers))
      return give_up(sender_.error());
    piece_ = static_cast<size_t>(plan_.next());
    return true;
  }

  bool finish() override {
    if (!flush())
      return false;
    if (!sender_.finish())
      return give_up(sender_.error());
    const std::vector<std::string>& etags = sender_.etags();
    std::string body("<CompleteMultipartUpload>");
    for (size_t i = 0; i < etags.size(); ++i)
      body += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" + xml_escaped(etags[i]) + "</ETag>" +
              checksum_element(i) + "</Part>";
    body += "</CompleteMultipartUpload>";
    Request post = request("POST");
    post.query.emplace_back("uploadId", upload_id_);
    post.headers.emplace_back("content-type", "application/xml");
    const std::string algorithm = checksum_algorithm();
    if (!algorithm.empty() && attributes_.checksum_type == "FULL_OBJECT") {
      post.headers.emplace_back("x-amz-checksum-type", attributes_.checksum_type);
      for (const auto& [name, value] : attributes_.checksums)
        if (name == algorithm)
          post.headers.emplace_back("x-amz-checksum-" + algorithm, value);
    }
    post.has_body = true;
    post.body = body;
    int attempts = 0;
    const Outcome outcome = retried(max_retry_seconds_, [&] {
      ++attempts;
      // The answer may begin with 200 and still turn out to be an error.
      Text_Reader reader("CompleteMultipartUploadResult", "ETag");
      return transport_.ask(post, reader);
    });
    if (!outcome.ok() && !(attempts > 1 && outcome.error.code() == "NoSuchUpload" && is_stored()))
      return give_up(outcome.error);
    upload_id_.clear();
    give_extras(true);
    return true;
  }

private:
  /// Where the answer to the first attempt was lost, the second finds no upload any more: the object tells.
  bool is_stored() {
    const Outcome outcome = transport_.ask(request("HEAD"));
    ACE_UINT64 size = 0;
    const std::string end = '-' + std::to_string(sender_.etags().size()) + '"';
    const std::string& etag = outcome.head.value("etag");
    return outcome.ok() && parse_size(outcome.head.value("content-length"), size) && size == size_ &&
           etag.size() > end.size() && etag.compare(etag.size() - end.size(), end.size(), end) == 0;
  }

  void abort() {
    if (upload_id_.empty())
      return;
    Request del = request("DELETE");
    del.query.emplace_back("uploadId", upload_id_);
    upload_id_.clear();
    Outcome outcome = transport_.ask(del);
    if (!outcome.ok() && outcome.error.retriable())
      outcome = transport_.ask(del);
    if (!outcome.ok() && outcome.error.code() != "NoSuchUpload")
      ACE_ERROR((LM_WARNING, ACE_TEXT("An unfinished upload of '%C' may be left in bucket '%C', error: %C.\n"),
                 key_.c_str(), bucket_.c_str(), outcome.error.text().c_str()));
  }

  /// Of the parts' checksums; empty where the upload has none.
  std::string checksum_algorithm() const {
    return (given_ & KIND_CHECKSUM) ? multipart_checksum(attributes_) : std::string();
  }

  /// What the list of parts says of one beside its ETag, as "<ChecksumCRC32C>...".
  std::string checksum_element(size_t part) const {
    if (part >= checksums_.size())
      return std::string();
    std::string name("Checksum");
    for (const char c : checksum_algorithm())
      name.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
    return '<' + name + '>' + checksums_[part] + "</" + name + '>';
  }

  std::string upload_id_;
  std::vector<std::string> checksums_; ///< of the parts
  Part_Sender sender_{transport_.shared_endpoint(), bucket_, key_, max_retry_seconds_};
};

S3_IWriter_ptr begin_upload(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
                            ACE_UINT64 size, int max_retry_seconds, const Object_Attributes* attributes,
                            S3_Error& error) {
  error = S3_Error();
  const Part_Plan plan(size, endpoint->part_size(), attributes);
  if (plan.largest() > std::numeric_limits<size_t>::max() / 2) {
    error = S3_Error(EFBIG, 0, "EntityTooLarge", "a part of the object would not fit into memory", false);
    return nullptr;
  }
  std::unique_ptr<Upload> writer;
  Multipart_Upload* multipart = nullptr;
  if (plan.multipart())
    writer.reset(multipart = new (std::nothrow)
                     Multipart_Upload(std::move(endpoint), bucket, key, size, plan, attributes, max_retry_seconds));
  else
    writer.reset(new (std::nothrow)
                     Single_Upload(std::move(endpoint), bucket, key, size, plan, attributes, max_retry_seconds));
  if (!writer) {
    error = S3_Error(ENOMEM, 0, "OutOfMemory", "no memory for an upload", false);
    return nullptr;
  }
  if (!writer->reserve()) {
    error = S3_Error(ECANCELED, 0, "Cancelled", "the job is being cancelled", false);
    return nullptr;
  }
  if (multipart != nullptr)
    error = multipart->begin().error;
  return error.number() == 0 ? S3_IWriter_ptr(std::move(writer)) : nullptr;
}

} // namespace

std::string xml_escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '"')
      out += "&quot;";
    else
      out.push_back(c);
  }
  return out;
}

S3_IWriter_ptr make_upload(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
                           ACE_UINT64 size, int max_retry_seconds, const Object_Attributes* attributes,
                           S3_Error& error) {
  const std::shared_ptr<S3_Ledger> ledger = endpoint->ledger();
  S3_IWriter_ptr writer = begin_upload(std::move(endpoint), bucket, key, size, max_retry_seconds, attributes, error);
  if (!writer)
    ledger->failed_here(error);
  return writer;
}

} // namespace s3
