#include "obs/agent/websvcs/service_pages.h"

std::string text_param(const json_spirit::Object& params, const char* key) {
  return json_spirit::optional_str(params, key);
}

bool is_in_region(S3_Service_Base& service, S3_Bucket& bucket, const std::string& region) {
  if (region.empty())
    return true;
  if (!bucket.location.empty() || !bucket.region.empty())
    return region == bucket.location || region == bucket.region;
  service.get_bucket_location(bucket.name.c_str(), bucket.location);
  return bucket.location.empty() || bucket.location == region;
}

bool for_each_service_page(S3_Service_Base& service, const std::function<void(Get_Service_Content&)>& handle_page) {
  bool succeeded = false;
  Get_Service_Parameter param;
  for (;;) {
    Get_Service_Content content;
    if (!service.get_service(param, content))
      return succeeded;
    succeeded = true;
    handle_page(content);
    if (!content.truncated || content.next_marker.empty())
      return succeeded;
    param.marker(content.next_marker.c_str());
  }
}
