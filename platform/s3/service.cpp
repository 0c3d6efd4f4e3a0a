#include "platform/s3/service.h"

#include "platform/http/http_date.h"
#include "platform/s3/attribute_headers.h"
#include "platform/s3/ranged_connection.h"
#include "platform/s3/storage_class.h"
#include "platform/s3/upload.h"

#include <ace/Log_Msg.h>

#include <cerrno>

namespace s3 {
namespace {

/// Whether the answer's own date is less than two seconds behind the object's: with dates of whole seconds, another
/// object may still get the same one. An answer without a date does not tell how old the object is.
bool is_fresh(const HTTP_Head& head) {
  const time_t modified = parse_http_date(head.value("last-modified"));
  const time_t now = parse_http_date(head.value("date"));
  return modified > 0 && (now <= 0 || now - modified < 2);
}

void fill(S3_Object& object, const char* key, const HTTP_Head& head, ACE_UINT64 size) {
  object = S3_Object();
  object.name = key;
  object.exists = true;
  object.size = size;
  const time_t time = parse_http_date(head.value("last-modified"));
  object.mtime = time > 0 ? static_cast<ACE_UINT64>(time) : 0;
  object.etag = head.value("etag");
  const std::string& storage_class = head.value("x-amz-storage-class");
  if (storage_class != "STANDARD")
    object.storage_class = storage_class;
}

/// "bytes 10-99/100": the first byte and the whole length.
bool read_content_range(const std::string& text, ACE_UINT64& first, ACE_UINT64& size) {
  const size_t dash = text.find('-'), slash = text.find('/');
  return text.compare(0, 6, "bytes ") == 0 && dash != std::string::npos && slash != std::string::npos && dash < slash &&
         parse_size(std::string_view(text).substr(6, dash - 6), first) &&
         parse_size(std::string_view(text).substr(slash + 1), size);
}

/// An answer without a body cannot say what is missing.
S3_Error named_missing(const S3_Error& error, const char* code) {
  return error.status() == 404 && error.code() == "NotFound"
             ? S3_Error(error.number(), error.status(), code, error.message(), error.retriable())
             : error;
}

/// Asks once, for a copy that lasts a week. A service that is at it already is as good as one that begins.
Outcome request_thaw(Transport& transport, const std::string& bucket, const std::string& key) {
  Request post{"POST", bucket, key, {{"restore", ""}}, {{"content-type", "application/xml"}}, true, {}};
  post.body = "<RestoreRequest xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Days>7</Days>"
              "<GlacierJobParameters><Tier>Standard</Tier></GlacierJobParameters></RestoreRequest>";
  Outcome outcome = transport.ask(post);
  if (outcome.error.code() == "RestoreAlreadyInProgress")
    outcome.error = S3_Error();
  return outcome;
}

S3_Error changed_error(const std::string& what) {
  return S3_Error(ESTALE, 412, "PreconditionFailed", "the object was replaced while it was read (" + what + ")", false);
}

} // namespace

Service::Service(std::shared_ptr<Endpoint> endpoint)
    : endpoint_(std::move(endpoint)), transport_(endpoint_), listing_(transport_) {}

Service::~Service() = default;

bool Service::report(Outcome outcome) {
  retry_after_ = outcome.retry_after;
  set_error(outcome.error);
  return outcome.ok();
}

bool Service::named(const char* bucket) {
  if (bucket && *bucket)
    return true;
  set_error(S3_Error(EINVAL, 0, "InvalidBucketName", "the name of the bucket is empty", false));
  return false;
}

bool Service::named(const char* bucket, const char* key) {
  if (!named(bucket))
    return false;
  if (key && *key)
    return true;
  set_error(S3_Error(EINVAL, 0, "InvalidKey", "the key of the object is empty", false));
  return false;
}

bool Service::get_service(const Get_Service_Parameter& param, Get_Service_Content& content) {
  content = Get_Service_Content();
  Request request{"GET", "", "", {}, {}, false, {}};
  if (!param.marker().empty())
    request.query.emplace_back("marker", param.marker());
  Buckets_Reader reader(content);
  Outcome outcome = transport_.ask(request, reader);
  if (outcome.ok() && content.truncated) {
    if (content.next_marker.empty() && !content.buckets.empty())
      content.next_marker = content.buckets.back().name;
    if (content.next_marker == param.marker())
      outcome.error = S3_Error(EPROTO, outcome.head.status, "ListingDoesNotAdvance",
                               "the list of buckets comes to the same place again", false);
  }
  return report(std::move(outcome));
}

bool Service::get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) {
  content = Get_Bucket_Content();
  if (!named(bucket))
    return false;
  Outcome outcome = listing_.page(bucket, param, content);
  S3_Ledger& ledger = *endpoint_->ledger();
  const std::string path = std::string("/") + bucket + '/' + param.prefix();
  if (!outcome.ok()) {
    if (outcome.error.number() != ECANCELED)
      ledger.listing_failed(path, outcome.error.text());
    return report(std::move(outcome));
  }
  ledger.listing_succeeded(path);
  ledger.page_shown(path, content.truncated);
  // Whoever lists goes on with a C string, and would come to another prefix.
  std::erase_if(content.common_prefixes, [&](const std::string& prefix) {
    if (prefix.find('\0') == std::string::npos)
      return false;
    ledger.listing_failed(std::string("/") + bucket + '/' + prefix, "Keys with a NUL byte are not supported.");
    return true;
  });
  ledger.listed_keys.fetch_add(content.objects.size(), std::memory_order_relaxed);
  const std::string host = endpoint_->address(bucket).host;
  for (const S3_Object& object : content.objects)
    if (needs_thaw(object.storage_class, host))
      ledger.objects.archived(std::string("/") + bucket + '/' + object.name, object.storage_class);
  if (!param.delimiter().empty())
    for (const S3_Object& object : content.objects)
      if (object.name == param.prefix())
        ledger.folder_object(std::string("/") + bucket + '/' + object.name, object.size);
  return report(std::move(outcome));
}

bool Service::get_bucket_location(const char* bucket, std::string& location) {
  location.clear();
  if (!named(bucket))
    return false;
  Request request{"GET", bucket, "", {{"location", ""}}, {}, false, {}};
  Text_Reader reader("LocationConstraint", "");
  const bool answered = report(transport_.ask(request, reader));
  if (answered)
    location = reader.text();
  return answered;
}

bool Service::bucket_exists(const char* bucket) {
  if (!named(bucket))
    return false;
  Outcome outcome = transport_.ask(Request{"HEAD", bucket, "", {}, {}, false, {}});
  outcome.error = named_missing(outcome.error, "NoSuchBucket");
  return report(std::move(outcome));
}

bool Service::create_bucket(const char* bucket) {
  if (!named(bucket))
    return false;
  Request request{"PUT", bucket, "", {}, {}, true, {}};
  const Address address = endpoint_->address(bucket);
  std::string body;
  // The default region is named by not naming one.
  if (!address.region.empty() && address.region != "us-east-1")
    body = "<CreateBucketConfiguration xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><LocationConstraint>" +
           xml_escaped(address.region) + "</LocationConstraint></CreateBucketConfiguration>";
  request.body = body;
  Outcome outcome = transport_.ask(request);
  if (outcome.error.code() == "BucketAlreadyOwnedByYou")
    outcome.error = S3_Error();
  return report(std::move(outcome));
}

bool Service::head_object(const char* bucket, const char* key, S3_Object& object) {
  object = S3_Object();
  if (!named(bucket, key))
    return false;
  object.name = key;
  const Request head{"HEAD", bucket, key, {}, {}, false, {}};
  Outcome outcome = retried(endpoint_->max_retry_seconds(), [&] { return transport_.ask(head); });
  ACE_UINT64 size = 0;
  if (outcome.ok()) {
    if (parse_size(outcome.head.value("content-length"), size)) {
      fill(object, key, outcome.head, size);
      const bool thawed = outcome.head.value("x-amz-restore").find("ongoing-request=\"false\"") != std::string::npos;
      if (!thawed && needs_thaw(object.storage_class, endpoint_->address(bucket).host))
        endpoint_->ledger()->objects.archived(std::string("/") + bucket + '/' + key, object.storage_class);
    } else {
      outcome.error = S3_Error(EPROTO, outcome.head.status, "MissingContentLength",
                               "the answer names no length (HEAD of '" + object.name + "')", false);
    }
  }
  // That there is no such object is an answer as well, and the error says so.
  const bool gone = outcome.error.status() == 404;
  if (outcome.ok() || gone)
    endpoint_->ledger()->head_objects.fetch_add(1, std::memory_order_relaxed);
  else
    endpoint_->ledger()->failed_here(outcome.error);
  return report(std::move(outcome)) || gone;
}

/// Whether a successful answer is what a GET from `offset` asked for; `size` becomes the object's.
bool Service::fits(const HTTP_Head& head, ACE_UINT64 offset, const Generation* generation, const std::string& what,
                   ACE_UINT64& size) {
  ACE_UINT64 length = 0, first = 0;
  if (!parse_size(head.value("content-length"), length)) {
    set_error(
        S3_Error(EPROTO, head.status, "MissingContentLength", "the answer names no length (" + what + ")", false));
    return false;
  }
  if (offset == 0) {
    size = length;
    return true;
  }
  if (head.status != 206 || !read_content_range(head.value("content-range"), first, size) || first != offset ||
      size < offset || size - offset != length) {
    set_error(S3_Error(EPROTO, head.status, "RangeNotHonoured",
                       "the answer is not the rest from byte " + std::to_string(offset) + " (" + what + ")", false));
    return false;
  }
  // A service that does not know If-Match, or a cache before it, answers with what there is now.
  if (generation && (size != generation->size || head.value("etag") != generation->etag)) {
    set_error(changed_error(what));
    return false;
  }
  return true;
}

/// A request that gives no object: the reason is kept for whoever asked through a reader.
HTTP_Connection_var Service::no_object(const std::string& path, const S3_Error& error, Curl_Connection_ref connection) {
  if (!connection) {
    connection = Curl_Connection_ref(new (std::nothrow) Curl_Connection(endpoint_->pool(), nullptr));
    if (connection)
      connection->refuse(0);
  }
  set_error(error);
  if (!path.empty())
    endpoint_->ledger()->objects.refused(path, error);
  return HTTP_Connection_var(connection.get());
}

/// What is said of an object that must be thawed first; asks the service to thaw it where the job wants that.
S3_Error Service::archived(const Request& request, const std::string& storage_class, const S3_Error& error) {
  std::string text = "the object lies in an archive" + (storage_class.empty() ? "" : " (" + storage_class + ")") +
                     " and must be thawed before it can be read";
  if (endpoint_->ledger()->objects.policy() == Archived_Policy::REQUEST) {
    const Outcome outcome = request_thaw(transport_, request.bucket, request.key);
    if (outcome.ok())
      endpoint_->ledger()->thaw_requests.fetch_add(1, std::memory_order_relaxed);
    text += outcome.ok() ? "; the service was asked to thaw it"
                         : "; the service refuses to thaw it: " + outcome.error.text();
  }
  return S3_Error(EPERM, error.status(), "InvalidObjectState", text, false);
}

/// Keeps what the first answer about an object told.
void Service::remember(const char* bucket, const char* key, const HTTP_Head& head, ACE_UINT64 size) {
  generation_ = Generation{bucket, key, head.value("etag"), size};
  attributes_ = read_attributes(head);
  attributes_.size = size;
  if (attributes_.tag_count > 0)
    endpoint_->ledger()->tags_told(std::string("/") + bucket + '/' + key);
  if (attributes_.tag_count >= 0)
    endpoint_->attributes().tags_counted(bucket);
  else if (endpoint_->attributes().counts_tags(bucket))
    attributes_.tag_count = 0;
}

HTTP_Connection_var Service::get_object(const char* bucket, const char* key, ACE_UINT64 offset, S3_Object* object) {
  if (object) {
    *object = S3_Object();
    object->name = key ? key : "";
  }
  if (!named(bucket, key))
    return no_object(std::string(), S3_Error(last_error()), Curl_Connection_ref());
  Request request{"GET", bucket, key, {}, {}, false, {}};
  const std::string path = '/' + request.bucket + '/' + request.key;
  Object_Notes& notes = endpoint_->ledger()->objects;
  const Generation* generation = nullptr;
  if (offset > 0) {
    request.headers.emplace_back("range", "bytes=" + std::to_string(offset) + '-');
    if (generation_.key == key && generation_.bucket == bucket) {
      // Without a tag nothing tells the rest of one generation from that of another: it must be read from its start.
      if (generation_.etag.empty())
        return no_object(path,
                         S3_Error(ESTALE, 0, "NoETag", "the service gives no ETag to go on by (" + path + ")", false),
                         Curl_Connection_ref());
      generation = &generation_;
      // A weak tag never satisfies If-Match; the answer's own is compared all the same.
      if (generation_.etag.compare(0, 2, "W/") != 0)
        request.headers.emplace_back("if-match", generation_.etag);
    }
  } else {
    generation_ = Generation();
    attributes_ = Object_Attributes();
    const std::string storage_class = notes.take_archived(path);
    // What was thawed is still listed in its class: who asks for thawing wants it to be tried.
    if (!storage_class.empty() && notes.policy() != Archived_Policy::REQUEST)
      return no_object(path, archived(request, storage_class, S3_Error()), Curl_Connection_ref());
    if (endpoint_->attributes().asks_checksums())
      request.headers.emplace_back("x-amz-checksum-mode", "ENABLED");
  }
  Outcome outcome;
  Curl_Connection_ref connection = transport_.open(request, outcome);
  if (offset == 0 && outcome.error.status() == 501 && endpoint_->attributes().asks_checksums()) {
    // A service that knows no such header and says so: its objects have no checksums to tell.
    request.headers.pop_back();
    endpoint_->attributes().ask_no_checksums();
    connection = transport_.open(request, outcome);
  }
  if (!outcome.ok()) {
    if (outcome.error.code() == "InvalidObjectState")
      outcome.error = archived(request, outcome.storage_class, outcome.error);
    else if (outcome.error.status() == 412 && generation)
      outcome.error = changed_error(transport_.describe(request));
    return no_object(path, named_missing(outcome.error, "NoSuchKey"), connection);
  }
  ACE_UINT64 size = 0;
  if (!fits(outcome.head, offset, generation, transport_.describe(request), size)) {
    connection->refuse(0);
    return no_object(path, S3_Error(last_error()), connection);
  }
  if (offset == 0) {
    remember(bucket, key, outcome.head, size);
    if (is_fresh(outcome.head))
      endpoint_->ledger()->read_fresh('/' + request.bucket + '/' + request.key);
  }
  if (object)
    fill(*object, key, outcome.head, size);
  notes.granted(path);
  set_error(S3_Error());
  const Range_Settings ranges = endpoint_->ranges();
  const std::string& etag = outcome.head.value("etag");
  if (ranges.most > 1 && size - offset >= ranges.threshold && !etag.empty() && etag.compare(0, 2, "W/") != 0)
    if (HTTP_Connection* const ranged =
            new (std::nothrow) Ranged_Connection(endpoint_, {bucket, key, etag, size}, offset, connection))
      return HTTP_Connection_var(ranged);
  return HTTP_Connection_var(connection.get());
}

bool Service::del_object(const char* bucket, const char* key) {
  if (!named(bucket, key))
    return false;
  Outcome outcome = transport_.ask(Request{"DELETE", bucket, key, {}, {}, false, {}});
  if (outcome.error.status() == 404 && outcome.error.code() != "NoSuchBucket")
    outcome.error = S3_Error();
  return report(std::move(outcome));
}

S3_IWriter_ptr Service::upload(const char* bucket, const char* key, ACE_UINT64 size) {
  if (!named(bucket, key))
    return nullptr;
  S3_Error error;
  S3_IWriter_ptr writer = make_upload(endpoint_, bucket, key, size, 0, nullptr, error);
  set_error(error);
  return writer;
}

} // namespace s3
