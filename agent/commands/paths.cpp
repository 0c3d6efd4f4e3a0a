#include "agent/commands/paths.h"

#include "agent/context.h"

std::vector<std::string> checked_paths(const std::vector<std::string>& paths) {
  std::vector<std::string> checked;
  for (const std::string& path : paths) {
    if (path.size() < 2 || path[0] != '/' || path[1] == '/')
      throw Command_Error("'" + path + "' names no bucket: a path is /bucket/, /bucket/prefix/ or /bucket/key",
                          EXIT_USAGE);
    const bool bucket_alone = path.find('/', 1) == std::string::npos;
    checked.push_back(bucket_alone ? path + "/" : path);
  }
  return checked;
}
