#include "bench/s3_source/service.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace {

constexpr const char* DATE = "Thu, 01 Jan 2026 00:00:00 GMT";
/// What its clock shows, long after: objects without a date beside theirs would count as just written.
constexpr const char* NOW = "Date: Sun, 01 Feb 2026 00:00:00 GMT\r\n";
constexpr const char* ISO_DATE = "2026-01-01T00:00:00.000Z";
constexpr size_t PAGE = 1000;

uint64_t hash_of(std::string_view text) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
  return hash ^ hash >> 29;
}

/// Not the form of an MD5, so that nobody tries to compare it with one.
/// Neither a digest of the content, which nobody computes, nor one of an object in parts, which clients would restore
/// so.
std::string etag_of(std::string_view key) {
  char text[40];
  std::snprintf(text, sizeof text, "\"%016llx.made-up\"", static_cast<unsigned long long>(hash_of(key)));
  return text;
}

void finish(Answer& answer, int status, const char* reason, std::string_view headers, std::string_view document) {
  answer.head = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n" + NOW +
                "Server: s3-source\r\nContent-Length: " + std::to_string(document.size()) + "\r\n";
  if (!document.empty())
    answer.head += "Content-Type: application/xml\r\n";
  answer.head.append(headers).append("\r\n").append(document);
}

void refuse(Answer& answer, int status, const char* reason, const char* code) {
  finish(answer, status, reason, "",
         std::string("<Error><Code>") + code + "</Code><Message>" + reason + "</Message></Error>");
}

void escape(std::string_view text, std::string& out) {
  for (const char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else
      out += c;
  }
}

/// "bytes=A-B" within `size`.
bool parse_range(const std::string& text, uint64_t size, uint64_t& first, uint64_t& last) {
  if (text.compare(0, 6, "bytes=") != 0 || size == 0)
    return false;
  const char* end = text.data() + text.size();
  const auto a = std::from_chars(text.data() + 6, end, first);
  if (a.ec != std::errc() || a.ptr == end || *a.ptr != '-' || first >= size)
    return false;
  last = size - 1;
  if (a.ptr + 1 != end)
    std::from_chars(a.ptr + 1, end, last);
  last = std::min(last, size - 1);
  return last >= first;
}

} // namespace

bool Request::has(std::string_view name) const {
  return std::any_of(query.begin(), query.end(), [&](const auto& one) { return one.first == name; });
}

std::string Request::get(std::string_view name) const {
  for (const auto& one : query)
    if (one.first == name)
      return one.second;
  return std::string();
}

Service::Service(std::vector<Layout> layouts) : layouts_(std::move(layouts)) {}

const Layout* Service::layout(const std::string& name) const {
  for (const Layout& layout : layouts_)
    if (layout.name() == name)
      return &layout;
  return nullptr;
}

void Service::answer(const Request& request, Answer& answer) {
  if (request.path.compare(0, 3, "/-/") == 0)
    return control(request, answer);
  const size_t slash = request.path.find('/', 1);
  const std::string name = request.path.substr(1, slash == std::string::npos ? slash : slash - 1);
  if (name.empty())
    return list_buckets(answer);
  if (slash == std::string::npos || slash + 1 == request.path.size())
    return bucket(request, name, answer);
  object(request, name, request.path.substr(slash + 1), answer);
}

void Service::control(const Request& request, Answer& answer) {
  if (request.path == "/-/latency") {
    latency_ = std::strtoull(request.get("us").c_str(), nullptr, 10);
  } else if (request.path == "/-/forget") {
    stored_.clear();
    counts_.clear();
  } else if (request.path == "/-/counts") {
    std::string json;
    for (const auto& count : counts_)
      json += (json.empty() ? "{\"" : ",\"") + count.first + "\":" + std::to_string(count.second);
    return finish(answer, 200, "OK", "", json.empty() ? "{}" : json + "}");
  } else {
    return refuse(answer, 404, "Not Found", "NoSuchControl");
  }
  finish(answer, 200, "OK", "", "");
}

void Service::list_buckets(Answer& answer) {
  ++counts_["buckets"];
  std::string document = "<ListAllMyBucketsResult><Owner><ID>bench</ID></Owner><Buckets>";
  for (const Layout& layout : layouts_)
    document += "<Bucket><Name>" + layout.name() + "</Name><CreationDate>" + ISO_DATE + "</CreationDate></Bucket>";
  for (const auto& stored : stored_)
    document += "<Bucket><Name>" + stored.first + "</Name><CreationDate>" + ISO_DATE + "</CreationDate></Bucket>";
  finish(answer, 200, "OK", "", document + "</Buckets></ListAllMyBucketsResult>");
}

void Service::bucket(const Request& request, const std::string& name, Answer& answer) {
  const bool there = layout(name) != nullptr || stored_.count(name) != 0;
  if (request.method == "PUT") {
    stored_[name];
    return finish(answer, 200, "OK", "", "");
  }
  if (!there)
    return refuse(answer, 404, "Not Found", "NoSuchBucket");
  if (request.has("location"))
    return finish(answer, 200, "OK", "", "<LocationConstraint></LocationConstraint>");
  if (request.has("delete"))
    return remove_several(request, name, answer);
  if (request.method == "HEAD" || request.method == "DELETE") {
    ++counts_["head_bucket"];
    return finish(answer, request.method == "HEAD" ? 200 : 204, "OK", "x-amz-bucket-region: us-east-1\r\n", "");
  }
  list(request, name, answer);
}

void Service::list(const Request& request, const std::string& name, Answer& answer) {
  ++counts_["list"];
  const std::string prefix = request.get("prefix");
  const std::string delimiter = request.get("delimiter");
  const bool second = request.get("list-type") == "2";
  std::string marker = second ? request.get("continuation-token") : request.get("marker");
  if (second && marker.empty())
    marker = request.get("start-after");
  size_t limit = PAGE;
  if (request.has("max-keys"))
    limit = std::min<size_t>(limit, std::strtoul(request.get("max-keys").c_str(), nullptr, 10));

  const Layout* const made_up = layout(name);
  const Stored* const kept = made_up ? nullptr : &stored_[name];
  Stored::const_iterator at;
  uint64_t number = 0;
  const auto seek = [&](const std::string& text) {
    if (made_up)
      number = made_up->lower_bound(text);
    else
      at = kept->lower_bound(text);
  };
  const std::string after = marker.empty() ? prefix : std::max(prefix, marker + '\0');
  // A marker that is a common prefix stands for everything below it.
  seek(!marker.empty() && !delimiter.empty() && marker.compare(marker.size() - 1, 1, delimiter) == 0
           ? std::max(prefix, marker + '\xFF')
           : after);

  std::string document;
  document.reserve(64 * 1024);
  document += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ListBucketResult "
              "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Name>" +
              name + "</Name><Prefix>" + prefix + "</Prefix>";
  const bool encoded = request.get("encoding-type") == "url";
  if (encoded)
    document += "<EncodingType>url</EncodingType>";
  std::string key, last;
  size_t count = 0;
  bool truncated = false;
  for (;;) {
    key.clear();
    uint64_t size = 0;
    if (made_up) {
      if (number == made_up->objects())
        break;
      made_up->append_key(number, key);
      size = made_up->object_size();
    } else {
      if (at == kept->end())
        break;
      key = at->first;
      size = at->second;
    }
    if (key.compare(0, prefix.size(), prefix) != 0)
      break;
    if (count == limit) {
      truncated = true;
      break;
    }
    ++count;
    const size_t cut = delimiter.empty() ? std::string::npos : key.find(delimiter, prefix.size());
    if (cut != std::string::npos) {
      last = key.substr(0, cut + delimiter.size());
      document += "<CommonPrefixes><Prefix>";
      escape(last, document);
      document += "</Prefix></CommonPrefixes>";
      seek(last + '\xFF');
      continue;
    }
    last = key;
    document += "<Contents><Key>";
    escape(key, document);
    document += "</Key><LastModified>";
    document += ISO_DATE;
    document += "</LastModified><ETag>&quot;00000000000000000000000000000000-1&quot;</ETag><Size>";
    document += std::to_string(size);
    document += "</Size><StorageClass>STANDARD</StorageClass></Contents>";
    if (made_up)
      ++number;
    else
      ++at;
  }
  document += truncated ? "<IsTruncated>true</IsTruncated>" : "<IsTruncated>false</IsTruncated>";
  if (truncated)
    document += second ? "<NextContinuationToken>" + last + "</NextContinuationToken>"
                       : "<NextMarker>" + last + "</NextMarker>";
  if (second)
    document += "<KeyCount>" + std::to_string(count) + "</KeyCount>";
  document += "</ListBucketResult>";
  finish(answer, 200, "OK", "", document);
}

void Service::object(const Request& request, const std::string& bucket, const std::string& key, Answer& answer) {
  const Layout* const made_up = layout(bucket);
  if (made_up == nullptr && stored_.count(bucket) == 0)
    return refuse(answer, 404, "Not Found", "NoSuchBucket");
  if (request.method == "GET" || request.method == "HEAD") {
    ++counts_[request.method == "GET" ? "get" : "head"];
    if (made_up) {
      if (made_up->find(key) == made_up->objects())
        return refuse(answer, 404, "Not Found", "NoSuchKey");
      return read(request, made_up, key, made_up->object_size(), answer);
    }
    const auto found = stored_[bucket].find(key);
    if (found == stored_[bucket].end())
      return refuse(answer, 404, "Not Found", "NoSuchKey");
    return read(request, nullptr, key, found->second, answer);
  }
  // What is made up stays as it is: writing it anew changes nothing, and there is nothing else to write.
  if (made_up && (request.method == "DELETE" || made_up->find(key) == made_up->objects()))
    return refuse(answer, 403, "Forbidden", "AccessDenied");
  const std::string etag = "ETag: " + etag_of(key) + "\r\n";
  if (request.method == "DELETE") {
    ++counts_["delete"];
    if (request.has("uploadId"))
      uploads_.erase(request.get("uploadId"));
    else
      stored_[bucket].erase(key);
    finish(answer, 204, "No Content", "", "");
  } else if (request.method == "POST" && request.has("uploads")) {
    ++counts_["upload"];
    const std::string id = "upload-" + std::to_string(++last_upload_);
    uploads_[id] = {bucket, key, {}};
    finish(answer, 200, "OK", "",
           "<InitiateMultipartUploadResult><UploadId>" + id + "</UploadId></InitiateMultipartUploadResult>");
  } else if (request.has("uploadId")) {
    const auto upload = uploads_.find(request.get("uploadId"));
    if (upload == uploads_.end())
      return refuse(answer, 404, "Not Found", "NoSuchUpload");
    if (request.method == "PUT") {
      ++counts_["part"];
      const unsigned part = static_cast<unsigned>(std::strtoul(request.get("partNumber").c_str(), nullptr, 10));
      upload->second.parts[part] = request.body_size;
      return finish(answer, 200, "OK", etag, "");
    }
    uint64_t size = 0;
    for (const auto& part : upload->second.parts)
      size += part.second;
    if (!made_up)
      stored_[bucket][key] = size;
    uploads_.erase(upload);
    finish(answer, 200, "OK", "",
           "<CompleteMultipartUploadResult><ETag>" + etag_of(key) + "</ETag></CompleteMultipartUploadResult>");
  } else if (request.method == "PUT") {
    ++counts_["put"];
    if (!made_up)
      stored_[bucket][key] = request.body_size;
    finish(answer, 200, "OK", etag, "");
  } else {
    refuse(answer, 405, "Method Not Allowed", "MethodNotAllowed");
  }
}

void Service::read(const Request& request, const Layout* layout, const std::string& key, uint64_t size,
                   Answer& answer) {
  uint64_t first = 0, last = size == 0 ? 0 : size - 1;
  const bool part = !request.range.empty();
  if (part && !parse_range(request.range, size, first, last))
    return refuse(answer, 416, "Range Not Satisfiable", "InvalidRange");
  const uint64_t length = size == 0 ? 0 : last - first + 1;
  answer.head = part ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n";
  answer.head += NOW;
  answer.head += "Server: s3-source\r\nAccept-Ranges: bytes\r\nContent-Type: application/octet-stream\r\nETag: ";
  answer.head += etag_of(key);
  answer.head += "\r\nLast-Modified: ";
  answer.head += DATE;
  answer.head += "\r\nContent-Length: " + std::to_string(length) + "\r\n";
  if (part)
    answer.head += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                   std::to_string(size) + "\r\n";
  answer.head += "\r\n";
  if (request.method == "HEAD")
    return;
  answer.pattern = layout != nullptr ? layout->pattern() : Pattern::NOISE;
  answer.pattern_at = (hash_of(key) + first) % Pattern::SIZE;
  answer.pattern_left = length;
}

void Service::remove_several(const Request& request, const std::string& bucket, Answer& answer) {
  ++counts_["delete_several"];
  std::string document = "<DeleteResult>";
  for (size_t at = 0; (at = request.body.find("<Key>", at)) != std::string::npos;) {
    at += 5;
    const size_t end = request.body.find("</Key>", at);
    if (end == std::string::npos)
      break;
    stored_[bucket].erase(request.body.substr(at, end - at));
  }
  finish(answer, 200, "OK", "", document + "</DeleteResult>");
}
