#include "platform/s3/attribute_headers.h"

#include "platform/s3/answers.h"
#include "platform/s3/checksum.h"
#include "platform/s3/percent_encoding.h"

#include <algorithm>
#include <string_view>

namespace s3 {
namespace {

constexpr std::string_view META = "x-amz-meta-";
constexpr std::string_view CHECKSUM = "x-amz-checksum-";
constexpr const char* REDIRECT = "x-amz-website-redirect-location";
/// What was written for a service's own use of them, and stays the object's.
constexpr const char* HEADERS[] = {
    "content-type", "cache-control", "content-disposition", "content-encoding", "content-language",
    "expires",      REDIRECT};

constexpr const char* ALL_USERS = "http://acs.amazonaws.com/groups/global/AllUsers";
constexpr const char* AUTHENTICATED_USERS = "http://acs.amazonaws.com/groups/global/AuthenticatedUsers";

bool begins_with(const std::string& text, std::string_view with) {
  return text.compare(0, with.size(), with) == 0;
}

/// "aws-chunked" describes how an upload was framed. Given back it would announce such a frame.
std::string without_transfer_coding(const std::string& codings) {
  std::string out;
  for (size_t at = 0; at <= codings.size();) {
    size_t end = codings.find(',', at);
    if (end == std::string::npos)
      end = codings.size();
    std::string_view one = std::string_view(codings).substr(at, end - at);
    while (!one.empty() && one.front() == ' ')
      one.remove_prefix(1);
    while (!one.empty() && one.back() == ' ')
      one.remove_suffix(1);
    if (one != "aws-chunked" && !one.empty())
      out.append(out.empty() ? "" : ", ").append(one);
    at = end + 1;
  }
  return out;
}

/// Services join the values of one name with commas; so does this where an answer has it twice.
void add(Object_Attributes::Named& to, std::string_view name, const std::string& value) {
  for (auto& [known, has] : to)
    if (known == name) {
      has += ',' + value;
      return;
    }
  to.emplace_back(std::string(name), value);
}

/// Whether a header field can carry the text as it is.
bool sendable_value(const std::string& text) {
  for (const char c : text)
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F)
      return false;
  return text.empty() || (text.front() != ' ' && text.front() != '\t' && text.back() != ' ' && text.back() != '\t');
}

bool sendable_name(const std::string& text) {
  constexpr std::string_view others = "!#$%&'*+-.^_`|~";
  for (const char c : text)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          others.find(c) != std::string_view::npos))
      return false;
  return !text.empty();
}

bool is_redirect(const std::pair<std::string, std::string>& header) {
  return header.first == REDIRECT;
}

/// Services tell up to nine digits of a second and take three.
std::string lock_date(const std::string& text) {
  const size_t dot = text.find('.');
  if (dot == std::string::npos || text.empty() || text.back() != 'Z')
    return text;
  const std::string digits = text.substr(dot + 1, std::min<size_t>(3, text.size() - dot - 2));
  if (digits.find_first_not_of('0') == std::string::npos)
    return text.substr(0, dot) + 'Z';
  return text.substr(0, dot + 1) + digits + 'Z';
}

void drop_unsendable(Object_Attributes::Named& values, const char* what, std::vector<std::string>& dropped) {
  for (auto at = values.begin(); at != values.end();) {
    if (sendable_name(at->first) && sendable_value(at->second)) {
      ++at;
      continue;
    }
    dropped.push_back(std::string(what) + " '" + at->first + "': no header field can carry it");
    at = values.erase(at);
  }
}

} // namespace

Object_Attributes read_attributes(const HTTP_Head& head) {
  Object_Attributes out;
  for (const auto& [name, value] : head.headers) {
    if (begins_with(name, META)) {
      add(out.metadata, std::string_view(name).substr(META.size()), value);
    } else if (begins_with(name, CHECKSUM)) {
      const std::string_view kind = std::string_view(name).substr(CHECKSUM.size());
      if (kind == "type")
        out.checksum_type = value;
      else if (kind != "algorithm")
        add(out.checksums, kind, value);
    } else if (name == "x-amz-storage-class") {
      if (value != "STANDARD")
        out.storage_class = value;
    } else if (name == "x-amz-object-lock-mode") {
      out.lock_mode = value;
    } else if (name == "x-amz-object-lock-retain-until-date") {
      out.lock_until = value;
    } else if (name == "x-amz-object-lock-legal-hold") {
      out.legal_hold = value == "ON";
    } else if (name == "x-amz-tagging-count") {
      ACE_UINT64 count = 0;
      if (parse_size(value, count))
        out.tag_count = static_cast<long long>(std::min<ACE_UINT64>(count, 1000));
    } else if (name == "x-amz-missing-meta") {
      ACE_UINT64 count = 0;
      if (parse_size(value, count))
        out.missing = static_cast<unsigned>(std::min<ACE_UINT64>(count, 1000));
    } else if (name == "etag") {
      out.etag =
          value.size() >= 2 && value.front() == '"' && value.back() == '"' ? value.substr(1, value.size() - 2) : value;
    } else if (name == "content-encoding") {
      const std::string codings = without_transfer_coding(value);
      if (!codings.empty())
        add(out.headers, name, codings);
    } else if (std::find(std::begin(HEADERS), std::end(HEADERS), name) != std::end(HEADERS)) {
      add(out.headers, name, value);
    }
  }
  return out;
}

std::string canned_acl(const Object_Attributes& attributes) {
  if (attributes.grants.empty())
    return std::string();
  bool owner = false, read = false, write = false, authenticated = false;
  for (const Object_Grant& grant : attributes.grants) {
    if (grant.grantee == attributes.owner && grant.permission == "FULL_CONTROL")
      owner = true;
    else if (grant.grantee == ALL_USERS && grant.permission == "READ")
      read = true;
    else if (grant.grantee == ALL_USERS && grant.permission == "WRITE")
      write = true;
    else if (grant.grantee == AUTHENTICATED_USERS && grant.permission == "READ")
      authenticated = true;
    else
      return std::string();
  }
  if (!owner || (write && !read) || (authenticated && (read || write)))
    return std::string();
  return authenticated ? "authenticated-read" : write ? "public-read-write" : read ? "public-read" : "private";
}

unsigned kinds_of(const Object_Attributes& attributes) {
  unsigned kinds = 0;
  if (!attributes.lock_mode.empty() || attributes.legal_hold)
    kinds |= KIND_LOCK;
  if (!attributes.storage_class.empty())
    kinds |= KIND_STORAGE_CLASS;
  if (!attributes.tags.empty())
    kinds |= KIND_TAGS;
  const std::string acl = canned_acl(attributes);
  if (!acl.empty() && acl != "private")
    kinds |= KIND_ACL;
  if (!attributes.checksums.empty())
    kinds |= KIND_CHECKSUM;
  if (!attributes.metadata.empty())
    kinds |= KIND_METADATA;
  for (const auto& header : attributes.headers)
    kinds |= is_redirect(header) ? KIND_REDIRECT : KIND_HEADERS;
  return kinds;
}

std::string multipart_checksum(const Object_Attributes& attributes) {
  for (const auto& one : attributes.checksums)
    if (knows_checksum(one.first))
      return one.first;
  return std::string();
}

void append_headers(const Object_Attributes& attributes, unsigned kinds, bool multipart, Name_Values& headers) {
  for (const auto& header : attributes.headers)
    if (kinds & (is_redirect(header) ? KIND_REDIRECT : KIND_HEADERS))
      headers.push_back(header);
  if (kinds & KIND_METADATA)
    for (const auto& [name, value] : attributes.metadata)
      headers.emplace_back(std::string(META) + name, value);
  if ((kinds & KIND_STORAGE_CLASS) && !attributes.storage_class.empty())
    headers.emplace_back("x-amz-storage-class", attributes.storage_class);
  if (kinds & KIND_LOCK) {
    if (!attributes.lock_mode.empty()) {
      headers.emplace_back("x-amz-object-lock-mode", attributes.lock_mode);
      headers.emplace_back("x-amz-object-lock-retain-until-date", lock_date(attributes.lock_until));
    }
    if (attributes.legal_hold)
      headers.emplace_back("x-amz-object-lock-legal-hold", "ON");
  }
  if ((kinds & KIND_TAGS) && !attributes.tags.empty()) {
    std::string tags;
    for (const auto& [name, value] : attributes.tags)
      tags += (tags.empty() ? "" : "&") + percent_encode(name, false) + '=' + percent_encode(value, false);
    headers.emplace_back("x-amz-tagging", tags);
  }
  if (kinds & KIND_ACL) {
    const std::string acl = canned_acl(attributes);
    if (!acl.empty() && acl != "private")
      headers.emplace_back("x-amz-acl", acl);
  }
  if ((kinds & KIND_CHECKSUM) && multipart) {
    std::string algorithm = multipart_checksum(attributes);
    for (char& c : algorithm)
      c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    if (!algorithm.empty()) {
      headers.emplace_back("x-amz-checksum-algorithm", algorithm);
      if (!attributes.checksum_type.empty())
        headers.emplace_back("x-amz-checksum-type", attributes.checksum_type);
    }
  }
  if ((kinds & KIND_CHECKSUM) && !multipart)
    for (const auto& [name, value] : attributes.checksums)
      headers.emplace_back(std::string(CHECKSUM) + name, value);
}

std::string describe(const Object_Attributes& attributes, Attribute_Kind kind) {
  std::string text;
  switch (kind) {
  case KIND_LOCK:
    if (!attributes.lock_mode.empty())
      text = "the object lock (" + attributes.lock_mode + " until " + attributes.lock_until + ")";
    if (attributes.legal_hold)
      text += text.empty() ? "the legal hold" : " and the legal hold";
    return text;
  case KIND_STORAGE_CLASS:
    return "the storage class '" + attributes.storage_class + "'";
  case KIND_TAGS:
    return "the tags (" + std::to_string(attributes.tags.size()) + ")";
  case KIND_ACL:
    return "the access list";
  case KIND_CHECKSUM:
    for (const auto& [name, value] : attributes.checksums)
      text += (text.empty() ? "the checksum " : ", ") + name;
    return text;
  case KIND_REDIRECT:
    return "the website redirect";
  case KIND_METADATA:
    return "the user metadata (" + std::to_string(attributes.metadata.size()) + ")";
  case KIND_HEADERS:
    for (const auto& header : attributes.headers)
      if (!is_redirect(header))
        text += (text.empty() ? "the headers " : ", ") + header.first;
    return text;
  default:
    return "the attributes";
  }
}

void make_sendable(Object_Attributes& attributes, time_t now, std::vector<std::string>& dropped) {
  drop_unsendable(attributes.headers, "the header", dropped);
  drop_unsendable(attributes.metadata, "the user metadata", dropped);
  drop_unsendable(attributes.checksums, "the checksum", dropped);
  if (!sendable_value(attributes.storage_class)) {
    dropped.push_back("the storage class: no header field can carry it");
    attributes.storage_class.clear();
  }
  if (attributes.lock_mode.empty() && attributes.lock_until.empty())
    return;
  long long until = 0;
  const bool dated = parse_iso_time(attributes.lock_until, until);
  if (!attributes.lock_mode.empty() && sendable_value(attributes.lock_mode) && dated && until > now)
    return;
  // Services refuse a date that has passed; the lock protects nothing any more.
  dropped.push_back("the object lock (" + attributes.lock_mode + " until " + attributes.lock_until +
                    "): " + (dated ? "its time is over" : "its date makes no sense"));
  attributes.lock_mode.clear();
  attributes.lock_until.clear();
}

void keep_fitting_checksums(Object_Attributes& attributes, bool multipart, std::vector<std::string>& dropped) {
  const std::string of_parts = multipart_checksum(attributes);
  std::erase_if(attributes.checksums, [&](const std::pair<std::string, std::string>& one) {
    const auto& [name, value] = one;
    std::string reason;
    // One over the parts' checksums ("...-3") says nothing about a content sent at once.
    if (!multipart && value.find('-') != std::string::npos)
      reason = "it is one of parts, and the object is sent at once";
    else if (multipart && name != of_parts)
      reason = of_parts.empty() ? "it cannot be made for parts" : "an upload in parts has one, " + of_parts;
    if (!reason.empty())
      dropped.push_back("the checksum " + name + ": " + reason);
    return !reason.empty();
  });
}

} // namespace s3
