#pragma once

#include "platform/http/http_message.h"
#include "sdk/s3/object_attributes.h"

#include <ctime>
#include <string>
#include <vector>

namespace s3 {

/// What an object's attributes are given in, and refused in: one bit each, in the order in which a target that does
/// not say what it minds is asked to go without.
enum Attribute_Kind : unsigned {
  KIND_LOCK = 1,
  KIND_STORAGE_CLASS = 2,
  KIND_TAGS = 4,
  KIND_ACL = 8,
  KIND_CHECKSUM = 16,
  KIND_REDIRECT = 32,
  KIND_METADATA = 64,
  KIND_HEADERS = 128,
  KIND_END = 256,
  ALL_KINDS = KIND_END - 1
};

/// What the head of an answer to GET or HEAD tells of an object. Lines that say nothing about the object itself, and
/// codings of the transfer, are left out.
Object_Attributes read_attributes(const HTTP_Head& head);

/// The canned access list ("public-read") that says the same as the grants; empty where there is none. "private" is
/// what every object has that is told nothing.
std::string canned_acl(const Object_Attributes& attributes);

/// The kinds that `attributes` has something of; the access list only where `canned_acl` is neither empty nor
/// "private".
unsigned kinds_of(const Object_Attributes& attributes);
/// The algorithm of the checksum that a multipart upload of the object is to have; empty for none.
std::string multipart_checksum(const Object_Attributes& attributes);
/// The header fields in which a PUT, or the start of a multipart upload, gives the attributes of `kinds`. The latter
/// names the checksum's algorithm, since its value comes from the parts.
void append_headers(const Object_Attributes& attributes, unsigned kinds, bool multipart, Name_Values& headers);
/// What of `attributes` is of that kind, for people: "the storage class 'COLD'".
std::string describe(const Object_Attributes& attributes, Attribute_Kind kind);

/// Takes out what no header field can carry, or what has no meaning any more at the time `now`, and adds a text for
/// each to `dropped`.
void make_sendable(Object_Attributes& attributes, time_t now, std::vector<std::string>& dropped);
/// The same for checksums that an upload at once, or in parts, cannot have.
void keep_fitting_checksums(Object_Attributes& attributes, bool multipart, std::vector<std::string>& dropped);

} // namespace s3
