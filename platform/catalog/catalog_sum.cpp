#include "platform/catalog/catalog_sum.h"

#include "platform/catalog/catalog_format.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"

#include <xxhash.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr const char* SUM_NAME = "catalog.sum";
constexpr size_t BUFFER = 256u << 10;
constexpr size_t MAX_SUM = 64;

struct Free_State {
  void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

bool sum_of(const std::string& path, std::string& sum, std::string& error) {
  const std::unique_ptr<XXH3_state_t, Free_State> state(XXH3_createState());
  if (!state || XXH3_128bits_reset(state.get()) != XXH_OK) {
    error = "no memory to check " + path;
    return false;
  }
  const int fd = open_pool_file(path, O_RDONLY);
  std::vector<char> buffer(BUFFER);
  ssize_t count = fd < 0 ? -1 : 1;
  while (count > 0) {
    count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0)
      XXH3_128bits_update(state.get(), buffer.data(), static_cast<size_t>(count));
    else if (count < 0 && errno == EINTR)
      count = 1;
  }
  if (count < 0)
    error = "cannot read " + path + ": " + pool_file_error(errno);
  if (fd >= 0)
    ::close(fd);
  const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
  char text[40];
  std::snprintf(text, sizeof text, "%016llx%016llx\n", static_cast<unsigned long long>(hash.high64),
                static_cast<unsigned long long>(hash.low64));
  sum = text;
  return count == 0;
}

} // namespace

bool install_catalog(const std::string& work, const std::string& folder, std::string& error) {
  const std::string sum = folder + "/" + SUM_NAME, path = folder + "/" + catalog::FILE_NAME;
  if (!remove_pool_file(sum) && errno != ENOENT) {
    error = "cannot remove " + sum + ": " + std::strerror(errno);
    return false;
  }
  if (!sync_folder(folder, error))
    return false;
  if (!rename_pool_file(work + "/" + catalog::FILE_NAME, path)) {
    error = "cannot replace " + path + ": " + std::strerror(errno);
    return false;
  }
  for (const char* const suffix : {"-journal", "-wal", "-shm"})
    remove_pool_file(path + suffix);
  return sync_folder(folder, error) && write_catalog_sum(folder, error);
}

bool write_catalog_sum(const std::string& folder, std::string& error) {
  std::string sum;
  return sum_of(folder + "/" + catalog::FILE_NAME, sum, error) && write_durable_file(folder, SUM_NAME, sum, error);
}

bool check_catalog_sum(const std::string& folder, std::string& error, bool* none) {
  const std::string path = folder + "/" + SUM_NAME;
  std::string known, now, sum;
  bool missing = false;
  const bool there = read_small_file(path, MAX_SUM, known, error, missing);
  if (none != nullptr)
    *none = missing;
  if (!there)
    return missing;
  if (!sum_of(folder + "/" + catalog::FILE_NAME, sum, error))
    return false;
  // A merge may have replaced the catalog since.
  if (sum == known || (read_small_file(path, MAX_SUM, now, error, missing) && now != known) || missing)
    return true;
  error = "the catalog " + folder + "/" + catalog::FILE_NAME + " does not match its check in " + SUM_NAME +
          ": one of them is damaged";
  return false;
}
