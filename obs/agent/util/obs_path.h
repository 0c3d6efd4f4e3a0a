#pragma once

#include <string>

/// A path of the object storage, "/bucket/key", split into its bucket and its key. A plain value.
///
/// One leading "/" is skipped; what stands before the next "/" is the bucket, everything behind it the key. A key is
/// bytes and is never cleaned: "/b//x" is the key "/x" of bucket b, and "/b/../x/" the key "../x/".
class OBS_Path {
public:
  /// Not valid.
  OBS_Path() = default;
  /// As `parse`; a text that names no bucket leaves both parts empty.
  OBS_Path(const char* text, bool bucket_only) { parse(text, bucket_only); }
  OBS_Path(const std::string& text, bool bucket_only) { parse(text, bucket_only); }

  /// Splits `text` (null counts as empty) into the two parts, replacing what was there. `bucket_only`: the key is not
  /// wanted and left empty. False, with both parts empty, when the text names no bucket.
  bool parse(const char* text, bool bucket_only);
  bool parse(const std::string& text, bool bucket_only);

  explicit operator bool() const { return !bucket_.empty(); }
  /// True for a whole bucket and for a key that ends in "/".
  bool is_prefix() const { return object_.empty() || object_.back() == '/'; }

  std::string bucket_;
  std::string object_; ///< the key; empty for a whole bucket
};
