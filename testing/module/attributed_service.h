#pragma once

#include "sdk/s3/object_attributes.h"
#include "testing/module/fake_s3.h"

#include <cerrno>

namespace module_testing {

/// A service over the fake store that can tell and take attributes.
class Attributed_Service : public Fake_Store_Service, public S3_Attribute_Service {
public:
  explicit Attributed_Service(Fake_Store& store) : Fake_Store_Service(store), store_(store) {}

  const Object_Attributes& attributes() const override { return told; }
  bool get_tags(const char* bucket, const char* key, Object_Attributes& attributes) override {
    asked.push_back(std::string("tags ") + bucket + "|" + key);
    if (fails)
      return fail();
    attributes.tags = {{"t", "1"}};
    return true;
  }
  bool get_acl(const char* bucket, const char* key, Object_Attributes& attributes) override {
    asked.push_back(std::string("acl ") + bucket + "|" + key);
    if (fails)
      return fail();
    attributes.owner = "me";
    attributes.grants = {{"CanonicalUser", "me", "FULL_CONTROL"}};
    return true;
  }
  bool get_parts(const char* bucket, const char* key, Object_Attributes& attributes) override {
    asked.push_back(std::string("parts ") + bucket + "|" + key);
    if (fails)
      return fail();
    attributes.parts = {{attributes.part_count(), 5}};
    return true;
  }
  S3_IWriter_ptr upload(const char* bucket, const char* key, ACE_UINT64 size,
                        const Object_Attributes& attributes) override {
    asked.push_back(std::string("upload ") + bucket + "|" + key + "|" + std::to_string(size));
    given = attributes;
    if (fails)
      return fail(), nullptr;
    return S3_IWriter_ptr(new Writer(*this));
  }
  using Fake_Store_Service::upload;

  Object_Attributes told, given;
  std::vector<std::string> asked;
  std::vector<std::string> refuses;
  bool fails = false;
  bool closes = true;

private:
  class Writer : public S3_IWriter, public S3_Attribute_Report {
  public:
    explicit Writer(Attributed_Service& service) : service_(service) {}
    int write(const char*, size_t length) override { return static_cast<int>(length); }
    bool close() override { return service_.closes; }
    const std::vector<std::string>& refused() const override { return service_.refuses; }

  private:
    Attributed_Service& service_;
  };
  bool fail() {
    set_error(S3_Error(EACCES, 403, "AccessDenied", "no", false));
    return false;
  }

  Fake_Store& store_;
};

} // namespace module_testing
