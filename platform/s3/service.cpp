#include "platform/s3/service.h"

#include "platform/s3/attribute_headers.h"
#include "platform/s3/upload.h"

#include <ace/Log_Msg.h>

#include <cerrno>

namespace s3 {
namespace {

/// Whether the answer's own date is less than two seconds behind the object's: with dates of whole seconds, another
/// object may still get the same one.
bool is_fresh(const HTTP_Head& head) {
  const time_t modified = curl_getdate(head.value("last-modified").c_str(), nullptr);
  const time_t now = curl_getdate(head.value("date").c_str(), nullptr);
  return modified > 0 && now > 0 && now - modified < 2;
}

void fill(S3_Object& object, const char* key, const HTTP_Head& head, ACE_UINT64 size) {
  object = S3_Object();
  object.name = key;
  object.exists = true;
  object.size = size;
  const time_t time = curl_getdate(head.value("last-modified").c_str(), nullptr);
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

} // namespace

Service::Service(std::shared_ptr<Endpoint> endpoint) : endpoint_(std::move(endpoint)), transport_(endpoint_) {}

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

Outcome Service::list(const Request& request, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) {
  Listing_Reader reader(content);
  if (mends_pages_)
    reader.mend();
  Outcome outcome = transport_.ask(request, reader);
  if (outcome.ok() && !reader.complete(param))
    outcome.error = S3_Error(EPROTO, outcome.head.status, "ListingDoesNotAdvance",
                             "the listing comes to the same place again (" + transport_.describe(request) + ")", false);
  return outcome;
}

bool Service::get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) {
  content = Get_Bucket_Content();
  if (!named(bucket))
    return false;
  Request request{"GET", bucket, "", {}, {}, false, {}};
  if (!param.prefix().empty())
    request.query.emplace_back("prefix", param.prefix());
  if (!param.marker().empty())
    request.query.emplace_back("marker", param.marker());
  if (!param.delimiter().empty())
    request.query.emplace_back("delimiter", param.delimiter());
  if (param.max_keys() >= 0)
    request.query.emplace_back("max-keys", std::to_string(param.max_keys()));
  request.query.emplace_back("encoding-type", "url");

  Outcome outcome = list(request, param, content);
  // Services that do not encode keys break their own page with a control character in one of them.
  if (outcome.error.code() == "MalformedAnswer" && !mends_pages_) {
    mends_pages_ = true;
    outcome = list(request, param, content);
    mends_pages_ = outcome.ok();
  }
  S3_Ledger& ledger = *endpoint_->ledger();
  const std::string path = '/' + request.bucket + '/' + param.prefix();
  if (!outcome.ok()) {
    content = Get_Bucket_Content();
    ledger.listing_failed(path, outcome.error.text());
    return report(std::move(outcome));
  }
  ledger.listing_succeeded(path);
  ledger.listed_keys.fetch_add(content.objects.size(), std::memory_order_relaxed);
  if (!param.delimiter().empty())
    for (const S3_Object& object : content.objects)
      if (object.name == param.prefix())
        ledger.folder_object('/' + request.bucket + '/' + object.name, object.size);
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
  Outcome outcome = transport_.ask(Request{"HEAD", bucket, key, {}, {}, false, {}});
  ACE_UINT64 size = 0;
  if (outcome.ok()) {
    if (parse_size(outcome.head.value("content-length"), size))
      fill(object, key, outcome.head, size);
    else
      outcome.error = S3_Error(EPROTO, outcome.head.status, "MissingContentLength",
                               "the answer names no length (HEAD of '" + object.name + "')", false);
  } else if (outcome.error.status() == 404) {
    outcome.error = S3_Error();
  }
  if (outcome.ok())
    endpoint_->ledger()->head_objects.fetch_add(1, std::memory_order_relaxed);
  return report(std::move(outcome));
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
  const std::string& etag = head.value("etag");
  if (generation && (size != generation->size || (!etag.empty() && etag != generation->etag))) {
    set_error(S3_Error(ESTALE, head.status, "PreconditionFailed",
                       "the object was replaced while it was read (" + what + ")", false));
    return false;
  }
  return true;
}

/// Keeps what the first answer about an object told.
void Service::remember(const char* bucket, const char* key, const HTTP_Head& head, ACE_UINT64 size) {
  generation_ = Generation{bucket, key, head.value("etag"), size};
  attributes_ = read_attributes(head);
  attributes_.size = size;
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
  if (!named(bucket, key)) {
    Curl_Connection* refused = new (std::nothrow) Curl_Connection(endpoint_->pool(), nullptr);
    HTTP_Connection_var none(refused);
    if (refused)
      refused->refuse(0);
    return none;
  }
  Request request{"GET", bucket, key, {}, {}, false, {}};
  const Generation* generation = nullptr;
  if (offset > 0) {
    request.headers.emplace_back("range", "bytes=" + std::to_string(offset) + '-');
    if (!generation_.etag.empty() && generation_.key == key && generation_.bucket == bucket) {
      generation = &generation_;
      request.headers.emplace_back("if-match", generation_.etag);
    }
  } else {
    generation_ = Generation();
    attributes_ = Object_Attributes();
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
  const HTTP_Connection_var answer(connection.get());
  if (!outcome.ok()) {
    set_error(named_missing(outcome.error, "NoSuchKey"));
    return answer;
  }
  ACE_UINT64 size = 0;
  if (!fits(outcome.head, offset, generation, transport_.describe(request), size)) {
    connection->refuse(0);
    return answer;
  }
  if (offset == 0) {
    remember(bucket, key, outcome.head, size);
    if (is_fresh(outcome.head))
      endpoint_->ledger()->read_fresh('/' + request.bucket + '/' + request.key);
  }
  if (object)
    fill(*object, key, outcome.head, size);
  set_error(S3_Error());
  return answer;
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
