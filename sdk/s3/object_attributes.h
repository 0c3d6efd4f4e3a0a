#pragma once

#include "sdk/s3/s3_service.h"

#include <string>
#include <utility>
#include <vector>

/// One right that an object's access list gives.
struct Object_Grant {
  std::string type;       ///< "CanonicalUser", "Group", "AmazonCustomerByEmail"
  std::string grantee;    ///< id, URI or address, as the type says
  std::string permission; ///< "READ", "WRITE", "READ_ACP", "WRITE_ACP", "FULL_CONTROL"

  bool operator==(const Object_Grant& other) const = default;
};

/// Parts of one size that follow one another.
struct Part_Run {
  unsigned long long count = 0;
  unsigned long long size = 0; ///< bytes

  bool operator==(const Part_Run& other) const = default;
};

/// What belongs to an object beside its key and its content. A value. All texts are bytes as the service gave them;
/// what it did not tell is empty.
struct Object_Attributes {
  typedef std::vector<std::pair<std::string, std::string>> Named;

  /// Content-Type and the like: names in lower case. The value may be empty.
  Named headers;
  /// What users put there: names in lower case, without "x-amz-meta-".
  Named metadata;
  Named tags;
  bool tags_known = false;   ///< there are these and no others; false: nobody asked
  std::string storage_class; ///< empty: the service's default
  std::string lock_mode;     ///< "GOVERNANCE" or "COMPLIANCE"
  std::string lock_until;    ///< ISO 8601, UTC
  bool legal_hold = false;
  std::string owner; ///< id; asked for together with the grants
  std::vector<Object_Grant> grants;
  /// By algorithm in lower case, as "crc32c": the value as it came.
  Named checksums;
  std::string checksum_type; ///< "FULL_OBJECT", "COMPOSITE"
  std::string etag;          ///< without quotes
  /// The parts that the object was stored in, in order; empty where it was not, or the service does not tell.
  std::vector<Part_Run> parts;
  long long tag_count = -1; ///< as the answer said; -1: it did not. Of the texts below where nobody asked for the tags
  unsigned missing = 0;     ///< pieces of metadata that the service could not tell
  ACE_UINT64 size = 0;      ///< bytes of the object; not part of the texts below

  /// The number at the end of a multipart ETag ("...-12"); 0 for any other ETag.
  unsigned long long part_count() const;
  /// The ETag in lower case where it has the form of an MD5, which it then is of the whole content with most services;
  /// else empty.
  std::string content_md5() const;

  /// Whether there was an answer about the access list, which names its owner at least.
  bool acl_known() const { return !owner.empty() || !grants.empty(); }
  /// Whether the access list, which is known, gives rights to anybody but the owner.
  bool is_shared() const;

  /// As two JSON objects: what many objects have alike, and what only this one has (ETag, checksums, layout of the
  /// parts). Empty texts where there is nothing to tell. Strings are bytes, also where they are no UTF-8.
  std::string common_text() const;
  std::string own_text() const;
  /// Reads both; unknown members are passed over. False, with the reason, when one is no JSON object or a member is of
  /// a wrong kind.
  bool parse(const std::string& common, const std::string& own, std::string& error);
};

/// What a service may be able to do beside what S3_Service_Base promises: an optional side of it, found by
/// dynamic_cast. One thread at a time, and `last_error` tells why something failed, as for the service itself.
class S3_Attribute_Service {
public:
  virtual ~S3_Attribute_Service();

  /// What the answer to the last successful `get_object` from byte 0 told. Valid until the next one.
  virtual const Object_Attributes& attributes() const = 0;
  /// Asks for the tags of an object.
  virtual bool get_tags(const char* bucket, const char* key, Object_Attributes& attributes) = 0;
  /// Asks for owner and grants of an object.
  virtual bool get_acl(const char* bucket, const char* key, Object_Attributes& attributes) = 0;
  /// Asks for the sizes of the parts that an object with a multipart ETag was stored in: a few requests where all but
  /// the last are alike, else one for each part. `attributes` holds its ETag and size. True as well where the service
  /// does not tell; `parts` is then empty.
  virtual bool get_parts(const char* bucket, const char* key, Object_Attributes& attributes) = 0;
  /// As S3_Client::upload, the object being given its attributes. What the target refuses is left out; the writer then
  /// tells (S3_Attribute_Report).
  virtual S3_IWriter_ptr upload(const char* bucket, const char* key, ACE_UINT64 size,
                                const Object_Attributes& attributes) = 0;
};

/// The optional side of a writer that was given attributes, found by dynamic_cast.
class S3_Attribute_Report {
public:
  virtual ~S3_Attribute_Report();
  /// What the target did not take, a text for each, with the service's reason. Complete once `close` has answered
  /// true.
  virtual const std::vector<std::string>& refused() const = 0;
};
