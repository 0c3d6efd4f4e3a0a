#pragma once

#include "sdk/s3/object_attributes.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace s3 {

/// Parts above this size are not held in memory: such an object gets a layout of ours. The same holds for an object
/// that was stored at once, which is a single part.
constexpr unsigned long long LARGEST_PART = 256ull << 20;

/// How an object is sent: at once, or in which parts.
class Part_Plan {
public:
  /// `wanted`: the size of the parts of an object that tells nothing. `attributes` may be null.
  ///
  /// An object that was stored in parts goes in the same parts, where it tells them, or else in those that its ETag and
  /// size make most likely; one that was stored at once goes at once, so that a service which makes ETags from contents
  /// makes the same again. All within what services take and memory holds.
  Part_Plan(unsigned long long size, unsigned long long wanted, const Object_Attributes* attributes);

  bool multipart() const { return multipart_; }
  /// The size of the next part; bytes. The last one may be shorter than told.
  unsigned long long next();
  /// The largest.
  unsigned long long largest() const { return largest_; }
  /// Why the object cannot be stored as it was, so that its ETag comes out another; empty where it can, or nothing is
  /// known of how it was.
  const std::string& refused() const { return refused_; }

private:
  bool take_layout(unsigned long long size, unsigned long long wanted, const Object_Attributes& attributes);

  bool multipart_ = false;
  std::vector<Part_Run> runs_;
  size_t run_ = 0;
  unsigned long long in_run_ = 0;
  unsigned long long largest_ = 0;
  std::string refused_;
};

/// The size of the parts that an object of `size` bytes is sent in: at least `wanted`, and so large that 10,000 of
/// them, the most that services take, are enough.
unsigned long long part_size_for(unsigned long long size, unsigned long long wanted);
/// The size of all parts but the last of an object that was stored in `count` of them: of the sizes that tools use,
/// the one that gives this number, else the smallest whole number of mebibytes that does; 0 where none does.
unsigned long long likely_part_size(unsigned long long size, unsigned long long count);

/// A share of the memory that parts above the usual size may take in this process. Whoever holds one is waited for, so
/// each upload takes one share, once.
class Large_Part_Share {
public:
  Large_Part_Share() = default;
  ~Large_Part_Share();
  Large_Part_Share(const Large_Part_Share&) = delete;
  Large_Part_Share& operator=(const Large_Part_Share&) = delete;
  /// Blocks until there is room. False when the job of the calling thread is being cancelled.
  bool take(unsigned long long bytes);

private:
  unsigned long long bytes_ = 0;
};

} // namespace s3
