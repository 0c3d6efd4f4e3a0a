#include "platform/s3/storage_class.h"

#include <algorithm>
#include <cctype>

namespace s3 {
namespace {

/// Lower case, without the separators that vendors spell differently.
std::string plain(std::string_view text) {
  std::string out;
  for (const unsigned char c : text)
    if (std::isalnum(c))
      out.push_back(static_cast<char>(std::tolower(c)));
  return out;
}

/// "COLD" stands for an archive at one vendor and for a class that reads at once at another: it is not here.
constexpr const char* FROZEN[] = {"glacier", "deeparchive", "archive", "coldarchive", "deepcoldarchive"};

/// Services where a class of such a name reads at once.
struct Warm_Row {
  const char* host; ///< the end of its name
  const char* storage_class;
};
constexpr Warm_Row WARM[] = {
    {"googleapis.com", "archive"},
    {"yandexcloud.net", "glacier"},
};

bool ends_with(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

} // namespace

bool needs_thaw(std::string_view storage_class, std::string_view host) {
  if (storage_class.empty())
    return false;
  const std::string name = plain(storage_class);
  if (std::find(std::begin(FROZEN), std::end(FROZEN), name) == std::end(FROZEN))
    return false;
  return std::none_of(std::begin(WARM), std::end(WARM),
                      [&](const Warm_Row& row) { return name == row.storage_class && ends_with(host, row.host); });
}

} // namespace s3
