#pragma once

#include "platform/s3/transport.h"
#include "sdk/s3/object_attributes.h"

#include <string>
#include <vector>

namespace s3 {

/// What belongs to an object and is asked for, or given, by requests of its own: tags, access list, layout of its
/// parts. For one object; uses the transport of whoever reads or writes it.
class Object_Extras {
public:
  Object_Extras(Transport& transport, std::string bucket, std::string key, int max_retry_seconds)
      : transport_(transport), bucket_(std::move(bucket)), key_(std::move(key)), max_retry_seconds_(max_retry_seconds) {
  }

  Outcome get_tags(Object_Attributes& attributes);
  Outcome get_acl(Object_Attributes& attributes);
  /// As S3_Attribute_Service::get_parts.
  Outcome get_parts(Object_Attributes& attributes);

  /// Gives the stored object what its upload, which carried the `given` kinds, could not: an access list that no canned
  /// one says, and tags that services forget when they come with a multipart upload. Looks whether what was given is
  /// there, as often as needed to know the target: after each multipart upload, and until each kind was found kept once
  /// in a bucket. Adds to `refused` what the target does not take or does not keep.
  void give(const Object_Attributes& attributes, unsigned given, bool multipart, std::vector<std::string>& refused);

private:
  Request request(const char* method, const char* subresource) const;
  Outcome put(const char* subresource, const std::string& body);
  Outcome get_part_size(unsigned long long number, const Object_Attributes& attributes, unsigned long long& size,
                        bool& told);
  Outcome give_acl(const Object_Attributes& attributes);
  unsigned unproved(const Object_Attributes& attributes, unsigned given) const;
  void look(const Object_Attributes& attributes, unsigned kinds, std::vector<std::string>& refused);
  Outcome give_tags(const Object_Attributes& attributes);

  Transport& transport_; ///< of whoever reads or writes the object
  const std::string bucket_;
  const std::string key_;
  const int max_retry_seconds_;
};

} // namespace s3
