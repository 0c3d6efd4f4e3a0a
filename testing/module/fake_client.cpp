#include "testing/module/fake_client.h"

namespace module_testing {

namespace {

std::unique_ptr<Fake_Client_Script>& script() {
  static std::unique_ptr<Fake_Client_Script> one(new Fake_Client_Script);
  return one;
}

class Fake_Upload : public S3_IWriter {
public:
  Fake_Upload(std::string bucket, std::string key, size_t size)
      : bucket_(std::move(bucket)), key_(std::move(key)), size_(size) {}
  int write(const char* data, size_t length) override {
    if (!fake_client().writes)
      return -1;
    const size_t count = std::min({length, size_ - data_.size(), fake_client().accepts});
    data_.append(data, count);
    return static_cast<int>(count);
  }
  bool close() override {
    if (data_.size() != size_ || !fake_client().stores)
      return false;
    fake_client().store.put_data(bucket_, key_, data_);
    return true;
  }

private:
  std::string bucket_;
  std::string key_;
  size_t size_;
  std::string data_;
};

} // namespace

Fake_Client_Script& fake_client() {
  return *script();
}
void reset_fake_client() {
  script().reset(new Fake_Client_Script);
}

} // namespace module_testing

using module_testing::fake_client;

// These take the place of the platform's in the test program.

struct S3_Client::Impl {};

S3_Client::S3_Client() : impl_(new Impl) {}
S3_Client::~S3_Client() = default;

bool S3_Client::connect(const std::string& scheme, const std::string& host, unsigned short port, bool ssl,
                        const char* proxy, const S3_Client_Options& options) {
  fake_client().connections.push_back(scheme + " " + host + " " + std::to_string(port) + (ssl ? " ssl " : " plain ") +
                                      (proxy ? proxy : "direct") + " " + options.access_key + " " + options.secret_key +
                                      " " + options.region + " " + options.vendor + " " + options.sign_method + " " +
                                      std::to_string(options.max_retry_seconds));
  return fake_client().connects;
}

std::shared_ptr<S3_Service_Base> S3_Client::make_service() {
  ++fake_client().services;
  if (fake_client().makes)
    return fake_client().makes();
  return std::make_shared<module_testing::Fake_Store_Service>(fake_client().store);
}

bool S3_Client::get_buckets(std::vector<json_spirit::Value>& buckets) {
  buckets = fake_client().extra_buckets;
  for (const std::string& name : fake_client().store.bucket_names())
    buckets.push_back(json_spirit::Object{{"dir", name}});
  return fake_client().lists_buckets;
}

S3_IWriter_ptr S3_Client::upload(const std::string& bucket, const std::string& key, size_t size) {
  fake_client().uploaded.push_back(bucket + "|" + key + "|" + std::to_string(size));
  if (!fake_client().uploads)
    return nullptr;
  return S3_IWriter_ptr(new module_testing::Fake_Upload(bucket, key, size));
}

bool S3_Client::del(const std::string& bucket, const std::string& key) {
  fake_client().deleted.push_back(bucket + "|" + key);
  return fake_client().store.erase(bucket, key);
}
