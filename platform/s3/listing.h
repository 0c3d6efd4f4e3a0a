#pragma once

#include "platform/s3/transport.h"

namespace s3 {

/// Asks for pages of a bucket's keys, in the version and encoding that the endpoint's settings name; where they leave a
/// choice, by what the service turns out to understand, which the endpoint keeps. One thread at a time.
class Listing {
public:
  explicit Listing(Transport& transport) : transport_(transport) {}

  /// One page; `content` is empty on failure. A page that leads nowhere fails with "ListingDoesNotAdvance".
  Outcome page(const std::string& bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content);

private:
  Outcome ask(const std::string& bucket, const Get_Bucket_Parameter& param, bool v2, bool encoded,
              Get_Bucket_Content& content);
  Outcome read(const Request& request, const Get_Bucket_Parameter& param, bool v2, bool repeats, std::string& token,
               Get_Bucket_Content& content);

  Transport& transport_;
  bool mends_pages_ = false; ///< the service has put on a page what XML does not allow
};

} // namespace s3
