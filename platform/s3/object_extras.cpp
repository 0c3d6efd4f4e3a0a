#include "platform/s3/object_extras.h"

#include "platform/s3/attribute_headers.h"
#include "platform/s3/digest.h"
#include "platform/s3/service.h"
#include "platform/s3/upload.h"

#include <ace/Log_Msg.h>

#include <optional>

namespace s3 {
namespace {

/// A service takes at most 10 tags and 100 grants.
constexpr size_t MAX_ENTRIES = 1000;

class Tags_Reader : public Answer_Reader {
public:
  explicit Tags_Reader(Object_Attributes::Named& tags) : Answer_Reader("Tagging"), tags_(tags) {}

protected:
  void begin(const Path& path) override {
    if (!is(path, "TagSet", "Tag"))
      return;
    if (tags_.size() >= MAX_ENTRIES)
      return refuse("the object has too many tags");
    tags_.emplace_back();
  }
  void element(const Path& path, std::string& text) override {
    if (is(path, "TagSet", "Tag", "Key"))
      tags_.back().first = std::move(text);
    else if (is(path, "TagSet", "Tag", "Value"))
      tags_.back().second = std::move(text);
  }

private:
  Object_Attributes::Named& tags_;
};

class Acl_Reader : public Answer_Reader {
public:
  explicit Acl_Reader(Object_Attributes& attributes) : Answer_Reader("AccessControlPolicy"), to_(attributes) {}

protected:
  void begin(const Path& path) override {
    if (!is(path, "AccessControlList", "Grant"))
      return;
    if (to_.grants.size() >= MAX_ENTRIES)
      return refuse("the object has too many grants");
    to_.grants.emplace_back();
  }
  void element(const Path& path, std::string& text) override {
    if (is(path, "Owner", "ID"))
      to_.owner = std::move(text);
    else if (is(path, "AccessControlList", "Grant", "Permission"))
      to_.grants.back().permission = std::move(text);
    else if (path.size() == 4 && path[0] == "AccessControlList" && path[1] == "Grant" && path[2] == "Grantee")
      grantee(path[3], text);
  }

private:
  void grantee(const std::string& name, std::string& text) {
    const char* const type = name == "ID"             ? "CanonicalUser"
                             : name == "URI"          ? "Group"
                             : name == "EmailAddress" ? "AmazonCustomerByEmail"
                                                      : nullptr;
    if (type == nullptr)
      return;
    to_.grants.back().type = type;
    to_.grants.back().grantee = std::move(text);
  }

  Object_Attributes& to_;
};

void append_run(std::vector<Part_Run>& runs, unsigned long long size) {
  if (!runs.empty() && runs.back().size == size)
    ++runs.back().count;
  else
    runs.push_back({1, size});
}

/// Of the headers that a request with these kinds carried; the redirect is a kind of its own.
std::vector<std::string> header_names(const Object_Attributes& attributes, unsigned kinds) {
  std::vector<std::string> names;
  if (kinds & KIND_HEADERS)
    for (const auto& header : attributes.headers)
      if (header.first != "x-amz-website-redirect-location")
        names.push_back(header.first);
  return names;
}

std::string with_reason(const Object_Attributes& attributes, Attribute_Kind kind, const S3_Error& error) {
  return describe(attributes, kind) + " (" + error.text() + ")";
}

} // namespace

Request Object_Extras::request(const char* method, const char* subresource) const {
  return Request{method, bucket_, key_, {{subresource, ""}}, {}, false, {}};
}

Outcome Object_Extras::put(const char* subresource, const std::string& body) {
  Request put = request("PUT", subresource);
  put.headers.emplace_back("content-type", "application/xml");
  // Services insist on a digest of these documents.
  put.headers.emplace_back("content-md5", to_base64(md5(body)));
  put.has_body = true;
  put.body = body;
  return retried(max_retry_seconds_, [&] { return transport_.ask(put); });
}

Outcome Object_Extras::get_tags(Object_Attributes& attributes) {
  const Request get = request("GET", "tagging");
  return retried(max_retry_seconds_, [&] {
    attributes.tags.clear();
    Tags_Reader reader(attributes.tags);
    // Tags may hold control characters, which services write as they are.
    reader.mend();
    Outcome outcome = transport_.ask(get, reader);
    // Some services know no empty list (radosgw answers NoSuchTagSet for an object that never had one).
    if (outcome.error.code() == "NoSuchTagSet" || outcome.error.code() == "NoSuchTagSetError")
      outcome.error = S3_Error();
    // Half of an answer is none.
    if (!outcome.ok())
      attributes.tags.clear();
    return outcome;
  });
}

Outcome Object_Extras::get_acl(Object_Attributes& attributes) {
  const Request get = request("GET", "acl");
  return retried(max_retry_seconds_, [&] {
    attributes.owner.clear();
    attributes.grants.clear();
    Acl_Reader reader(attributes);
    Outcome outcome = transport_.ask(get, reader);
    if (!outcome.ok()) {
      attributes.owner.clear();
      attributes.grants.clear();
    }
    return outcome;
  });
}

/// `told` stays false where the service answers for the whole object.
Outcome Object_Extras::get_part_size(unsigned long long number, const Object_Attributes& attributes,
                                     unsigned long long& size, bool& told) {
  Request head{"HEAD", bucket_, key_, {{"partNumber", std::to_string(number)}}, {}, false, {}};
  head.headers.emplace_back("if-match", '"' + attributes.etag + '"');
  Outcome outcome = retried(max_retry_seconds_, [&] { return transport_.ask(head); });
  ACE_UINT64 length = 0;
  told = outcome.ok() && (outcome.head.status == 206 || outcome.head.find("x-amz-mp-parts-count") != nullptr) &&
         parse_size(outcome.head.value("content-length"), length);
  size = length;
  // A service that does not know the parameter, or minds it, is none that tells.
  if (!outcome.ok() && !outcome.error.retriable() && outcome.error.status() != 404 && outcome.error.status() != 412)
    outcome.error = S3_Error();
  return outcome;
}

Outcome Object_Extras::get_parts(Object_Attributes& attributes) {
  attributes.parts.clear();
  const unsigned long long count = attributes.part_count();
  if (count == 1)
    attributes.parts.push_back({1, attributes.size});
  if (count < 2 || !transport_.endpoint().attributes().tells_parts())
    return Outcome();

  std::vector<std::optional<unsigned long long>> sizes(static_cast<size_t>(count));
  Outcome outcome;
  bool told = true;
  const auto ask = [&](unsigned long long number) {
    std::optional<unsigned long long>& size = sizes[static_cast<size_t>(number - 1)];
    unsigned long long length = 0;
    if (!size) {
      outcome = get_part_size(number, attributes, length, told);
      if (outcome.ok() && told)
        size = length;
    }
    return outcome.ok() && told;
  };
  if (!ask(1)) {
    if (outcome.ok())
      transport_.endpoint().attributes().tells_no_parts();
    return outcome;
  }
  const unsigned long long first = *sizes[0];
  // Where all but the last are alike, which nearly all are, a few of them show it.
  const bool feasible = first != 0 && attributes.size > (count - 1) * first && attributes.size <= count * first;
  if (feasible) {
    bool alike = true;
    for (const unsigned long long number : {2ull, count / 2, count - 1})
      if (number >= 1 && number < count) {
        if (!ask(number))
          return outcome;
        alike = alike && *sizes[static_cast<size_t>(number - 1)] == first;
      }
    if (alike && count > 4) {
      attributes.parts.push_back({count - 1, first});
      append_run(attributes.parts, attributes.size - (count - 1) * first);
      return outcome;
    }
  }
  unsigned long long sum = 0;
  std::vector<Part_Run> runs;
  for (unsigned long long number = 1; number < count; ++number) {
    if (!ask(number))
      return outcome;
    const unsigned long long size = *sizes[static_cast<size_t>(number - 1)];
    sum += size;
    append_run(runs, size);
  }
  if (sum <= attributes.size) {
    append_run(runs, attributes.size - sum);
    attributes.parts = std::move(runs);
  }
  return outcome;
}

Outcome Object_Extras::give_tags(const Object_Attributes& attributes) {
  std::string body("<Tagging xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><TagSet>");
  for (const auto& [name, value] : attributes.tags)
    body += "<Tag><Key>" + xml_escaped(name) + "</Key><Value>" + xml_escaped(value) + "</Value></Tag>";
  body += "</TagSet></Tagging>";
  return put("tagging", body);
}

/// The list names its owner, who is another one in another account.
Outcome Object_Extras::give_acl(const Object_Attributes& attributes) {
  Object_Attributes now;
  const Outcome asked = get_acl(now);
  if (!asked.ok())
    return asked;
  std::string body("<AccessControlPolicy xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Owner><ID>" +
                   xml_escaped(now.owner) + "</ID></Owner><AccessControlList>");
  for (const Object_Grant& grant : attributes.grants) {
    const bool to_owner = grant.type == "CanonicalUser" && grant.grantee == attributes.owner;
    const char* const name = grant.type == "Group" ? "URI" : grant.type == "CanonicalUser" ? "ID" : "EmailAddress";
    body += "<Grant><Grantee xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:type=\"" +
            xml_escaped(grant.type) + "\"><" + name + '>' + xml_escaped(to_owner ? now.owner : grant.grantee) + "</" +
            name + "></Grantee><Permission>" + xml_escaped(grant.permission) + "</Permission></Grant>";
  }
  body += "</AccessControlList></AccessControlPolicy>";
  return put("acl", body);
}

void Object_Extras::give(const Object_Attributes& attributes, unsigned given, bool multipart,
                         std::vector<std::string>& refused) {
  if (!attributes.grants.empty() && canned_acl(attributes).empty()) {
    const Outcome outcome = give_acl(attributes);
    if (!outcome.ok())
      refused.push_back(with_reason(attributes, KIND_ACL, outcome.error));
  }
  // radosgw 16 takes them with the start of a multipart upload and forgets them.
  if (multipart && (given & KIND_TAGS)) {
    const Outcome outcome = give_tags(attributes);
    if (!outcome.ok())
      refused.push_back(with_reason(attributes, KIND_TAGS, outcome.error));
    given &= ~unsigned(KIND_TAGS);
  }
  // What a canned list or a checksum says is not told by HEAD.
  given &= ~unsigned(KIND_ACL | KIND_CHECKSUM);
  if (!multipart)
    given = unproved(attributes, given);
  if (given != 0)
    look(attributes, given, refused);
}

/// Those of the `given` kinds that the target has not been found to keep yet.
unsigned Object_Extras::unproved(const Object_Attributes& attributes, unsigned given) const {
  const Attribute_Memory& memory = transport_.endpoint().attributes();
  unsigned left = 0;
  for (unsigned kind = 1; kind != KIND_END; kind <<= 1)
    if ((given & kind) && kind != KIND_HEADERS && !memory.keeps(bucket_, kind, std::string()))
      left |= kind;
  for (const std::string& name : header_names(attributes, given))
    if (!memory.keeps(bucket_, KIND_HEADERS, name))
      left |= KIND_HEADERS;
  return left;
}

/// Services that know an attribute's name no better than any other header's take it and forget it without a word.
void Object_Extras::look(const Object_Attributes& attributes, unsigned kinds, std::vector<std::string>& refused) {
  const Request head{"HEAD", bucket_, key_, {}, {}, false, {}};
  const Outcome outcome = retried(max_retry_seconds_, [&] { return transport_.ask(head); });
  if (!outcome.ok()) {
    refused.push_back("what it was given could not be checked (" + outcome.error.text() + ")");
    return;
  }
  const Object_Attributes now = read_attributes(outcome.head);
  Attribute_Memory& memory = transport_.endpoint().attributes();
  const auto settle = [&](Attribute_Kind kind, bool kept) {
    if (!(kinds & kind))
      return;
    if (kept)
      memory.kept(bucket_, kind, std::string());
    else
      refused.push_back(describe(attributes, kind) + " (the service took it and does not keep it)");
  };
  // Names alone: services write some values in ways of their own (encoded words, blanks, "_" as "-" in radosgw).
  const auto has_all = [](const Object_Attributes::Named& wanted, const Object_Attributes::Named& found) {
    return found.size() >= wanted.size();
  };
  settle(KIND_LOCK, now.lock_mode == attributes.lock_mode && now.legal_hold == attributes.legal_hold);
  settle(KIND_STORAGE_CLASS, now.storage_class == attributes.storage_class);
  settle(KIND_METADATA, has_all(attributes.metadata, now.metadata));
  const auto redirects = [](const Object_Attributes& one) { return (kinds_of(one) & KIND_REDIRECT) != 0; };
  settle(KIND_REDIRECT, redirects(now));
  for (const std::string& name : header_names(attributes, kinds)) {
    bool found = false;
    for (const auto& header : now.headers)
      found = found || header.first == name;
    if (found)
      memory.kept(bucket_, KIND_HEADERS, name);
    else
      refused.push_back("the header " + name + " (the service took it and does not keep it)");
  }
  if ((kinds & KIND_TAGS) && now.tag_count < 0) {
    Object_Attributes asked;
    const Outcome told = get_tags(asked);
    if (told.ok())
      settle(KIND_TAGS, has_all(attributes.tags, asked.tags));
    else
      refused.push_back(describe(attributes, KIND_TAGS) + " could not be checked (" + told.error.text() + ")");
  } else {
    settle(KIND_TAGS, now.tag_count >= static_cast<long long>(attributes.tags.size()));
  }
}

bool Service::get_tags(const char* bucket, const char* key, Object_Attributes& attributes) {
  if (!named(bucket, key))
    return false;
  endpoint_->ledger()->tags_asked(std::string("/") + bucket + '/' + key);
  return report(Object_Extras(transport_, bucket, key, endpoint_->max_retry_seconds()).get_tags(attributes));
}

bool Service::get_acl(const char* bucket, const char* key, Object_Attributes& attributes) {
  return named(bucket, key) &&
         report(Object_Extras(transport_, bucket, key, endpoint_->max_retry_seconds()).get_acl(attributes));
}

bool Service::get_parts(const char* bucket, const char* key, Object_Attributes& attributes) {
  return named(bucket, key) &&
         report(Object_Extras(transport_, bucket, key, endpoint_->max_retry_seconds()).get_parts(attributes));
}

S3_IWriter_ptr Service::upload(const char* bucket, const char* key, ACE_UINT64 size,
                               const Object_Attributes& attributes) {
  if (!named(bucket, key))
    return nullptr;
  S3_Error error;
  S3_IWriter_ptr writer = make_upload(endpoint_, bucket, key, size, endpoint_->max_retry_seconds(), &attributes, error);
  set_error(error);
  if (!writer)
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to begin to store object '%C' in bucket '%C', error: %C.\n"), key, bucket,
               error.text().c_str()));
  return writer;
}

} // namespace s3
