#pragma once

#include "testing/module/fake_s3.h"

#include <atomic>

namespace module_testing {

/// What the clients that a callback holds do in a test program with fake_client.cpp: they work on a store, and keep
/// how they were used. One for the program; made anew by `reset`.
struct Fake_Client_Script {
  Fake_Store store;
  bool connects = true;
  bool lists_buckets = true; ///< false: fails with what it has so far filled in
  bool uploads = true;
  bool stores = true;                                      ///< what closing an upload answers
  bool writes = true;                                      ///< false: writing fails
  size_t accepts = static_cast<size_t>(-1);                ///< bytes that one write takes at most
  std::function<std::shared_ptr<S3_Service_Base>()> makes; ///< services; null: they work on the store
  std::vector<json_spirit::Value> extra_buckets;           ///< listed before the store's own

  std::vector<std::string> connections; ///< "scheme host port ssl access secret region vendor sign"
  std::vector<std::string> uploaded;    ///< "bucket|key|size"
  std::vector<std::string> deleted;     ///< "bucket|key"
  std::atomic<int> services = 0;        ///< made so far; the listers' threads each make one
};

Fake_Client_Script& fake_client();
void reset_fake_client();

} // namespace module_testing
