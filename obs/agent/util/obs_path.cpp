#include "obs/agent/util/obs_path.h"

bool OBS_Path::parse(const char* text, bool bucket_only) {
  return parse(text ? std::string(text) : std::string(), bucket_only);
}

bool OBS_Path::parse(const std::string& text, bool bucket_only) {
  const std::string::size_type begin = !text.empty() && text.front() == '/' ? 1 : 0;
  const std::string::size_type end = text.find('/', begin);
  bucket_ = text.substr(begin, end == std::string::npos ? end : end - begin);
  object_.clear();
  if (bucket_.empty())
    return false;
  if (!bucket_only && end != std::string::npos)
    object_ = text.substr(end + 1);
  return true;
}
