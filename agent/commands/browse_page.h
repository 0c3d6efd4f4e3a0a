#pragma once

#include "agent/context.h"

#include <string>
#include <vector>

/// One page of what an account holds now, as the module answers "obs.list".
struct Browse_Page {
  struct File {
    std::string name;            ///< behind the asked path
    unsigned long long size = 0; ///< bytes
    std::string mtime;           ///< "%Y-%m-%d %H:%M:%S", UTC
  };
  std::vector<std::string> folders; ///< "/bucket/" at the root, else behind the asked path
  std::vector<File> files;
  bool truncated = false;
  std::string marker; ///< where the next page begins
};

/// Asks for the page of `path` ("": the buckets) behind `marker`; `limit` 0: the service's own page. Throws
/// Command_Error with the service's reason.
Browse_Page browse_page(Context& context, const std::string& account_uuid, const std::string& path, int limit,
                        const std::string& marker);

/// Whether "/bucket/key", which is no object, is a folder that holds some. False also where the service does not say.
bool has_objects_below(Context& context, const std::string& account_uuid, const std::string& path);
/// What is said of such a path.
std::string folder_instead(const std::string& path);
