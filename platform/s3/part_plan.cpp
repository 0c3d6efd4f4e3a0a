#include "platform/s3/part_plan.h"

#include "platform/http/cancellation.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace s3 {
namespace {

constexpr unsigned long long MAX_PARTS = 10000;
constexpr unsigned long long MEBIBYTE = 1ull << 20;
/// What services take as the least size of a part that is not the last.
constexpr unsigned long long LEAST_PART = 5 * MEBIBYTE;
/// Of the parts above the usual size that are in memory at one time.
constexpr unsigned long long LARGE_PARTS_BUDGET = LARGEST_PART;
/// Defaults of tools and libraries, the most common first.
constexpr unsigned long long USUAL_MEBIBYTES[] = {8, 5, 16, 10, 15, 64, 32, 100, 128, 25, 50, 20, 256};

unsigned long long parts_of(unsigned long long size, unsigned long long part) {
  return size / part + (size % part != 0);
}

struct Budget {
  std::mutex mutex;
  std::condition_variable room;
  unsigned long long used = 0;
};

Budget& budget() {
  static Budget* instance = new Budget;
  return *instance;
}

} // namespace

unsigned long long part_size_for(unsigned long long size, unsigned long long wanted) {
  const unsigned long long least = parts_of(size, MAX_PARTS);
  if (least <= wanted)
    return wanted;
  return parts_of(least, MEBIBYTE) * MEBIBYTE;
}

unsigned long long likely_part_size(unsigned long long size, unsigned long long count) {
  if (count == 0 || size < count)
    return count == 1 ? std::max<unsigned long long>(size, 1) : 0;
  if (count == 1)
    return size;
  for (const unsigned long long usual : USUAL_MEBIBYTES)
    if (parts_of(size, usual * MEBIBYTE) == count)
      return usual * MEBIBYTE;
  // The smallest size that needs no more parts than that.
  const unsigned long long least = parts_of(parts_of(size, count), MEBIBYTE) * MEBIBYTE;
  return parts_of(size, least) == count ? least : 0;
}

Part_Plan::Part_Plan(unsigned long long size, unsigned long long wanted, const Object_Attributes* attributes) {
  if (attributes != nullptr && take_layout(size, wanted, *attributes))
    return;
  const unsigned long long part = part_size_for(size, wanted);
  multipart_ = size > part;
  runs_.assign(1, {MAX_PARTS, part});
  largest_ = part;
}

bool Part_Plan::take_layout(unsigned long long size, unsigned long long wanted, const Object_Attributes& attributes) {
  const unsigned long long count = attributes.part_count();
  if (count == 0) {
    // Only an ETag that is a digest of the content comes out the same when the content is sent at once.
    if (attributes.content_md5().empty() || size <= wanted)
      return false;
    if (size > LARGEST_PART) {
      refused_ = "it was stored at once, and is larger than " + std::to_string(LARGEST_PART / MEBIBYTE) + " MiB";
      return false;
    }
    runs_.assign(1, {1, size});
    largest_ = size;
    return true;
  }

  std::vector<Part_Run> runs = attributes.parts;
  if (runs.empty()) {
    const unsigned long long part = likely_part_size(size, count);
    if (part == 0) {
      refused_ = "no parts of one size make up its size";
      return false;
    }
    runs.assign(1, {count, part});
  } else {
    unsigned long long sum = 0, parts = 0;
    for (const Part_Run& run : runs) {
      if (run.count == 0 || run.count > MAX_PARTS || run.size > size || (run.size == 0 && size != 0) ||
          (run.size != 0 && run.count > size / run.size)) {
        refused_ = "its parts do not make up its size";
        return false;
      }
      sum += run.count * run.size;
      parts += run.count;
    }
    if (sum != size || parts > MAX_PARTS) {
      refused_ = "its parts do not make up its size";
      return false;
    }
  }
  unsigned long long least = std::numeric_limits<unsigned long long>::max(), largest = 0;
  for (size_t i = 0; i < runs.size(); ++i) {
    largest = std::max(largest, runs[i].size);
    if (i + 1 < runs.size() || runs[i].count > 1)
      least = std::min(least, runs[i].size);
  }
  if (largest > LARGEST_PART)
    refused_ = "its parts are larger than " + std::to_string(LARGEST_PART / MEBIBYTE) + " MiB";
  else if (least < std::min(LEAST_PART, wanted))
    refused_ = "its parts are smaller than services take";
  if (!refused_.empty())
    return false;
  multipart_ = true;
  runs_ = std::move(runs);
  largest_ = largest;
  return true;
}

unsigned long long Part_Plan::next() {
  if (in_run_ == runs_[run_].count && run_ + 1 < runs_.size()) {
    ++run_;
    in_run_ = 0;
  }
  ++in_run_;
  return runs_[run_].size;
}

Large_Part_Share::~Large_Part_Share() {
  if (bytes_ == 0)
    return;
  const std::lock_guard<std::mutex> guard(budget().mutex);
  budget().used -= bytes_;
  budget().room.notify_all();
}

bool Large_Part_Share::take(unsigned long long bytes) {
  std::unique_lock<std::mutex> lock(budget().mutex);
  // A single one that is larger than the budget gets it alone.
  while (budget().used != 0 && budget().used + bytes > LARGE_PARTS_BUDGET) {
    if (current_job_cancelled())
      return false;
    budget().room.wait_for(lock, std::chrono::milliseconds(200));
  }
  budget().used += bytes;
  bytes_ += bytes;
  return true;
}

} // namespace s3
