#pragma once

#include "platform/s3/xml_reader.h"
#include "sdk/s3/s3_types.h"

#include <ctime>
#include <string>
#include <string_view>

namespace s3 {

/// Bytes of the longest key that a service takes.
constexpr size_t MAX_KEY = 1024;

/// What an error document says. All empty when it is none.
struct Error_Document {
  std::string code;
  std::string message;
  std::string region;
  std::string endpoint;
  std::string request_id;
  std::string storage_class; ///< of an object that must be thawed
};

/// Reads as much of an error document as there is; a broken one gives what came before the break.
Error_Document parse_error(std::string_view document);

/// "2009-10-12T17:50:30.000Z"; false for anything else.
bool parse_iso_time(std::string_view text, long long& time);
/// Decimal digits alone, within 64 bits.
bool parse_size(std::string_view text, ACE_UINT64& size);

/// A reader of an answer that may turn out to be an error document, whatever status it came under.
class Answer_Reader : public XML_Reader {
public:
  const Error_Document& error() const { return error_; }
  bool is_error() const { return root() == "Error"; }

protected:
  explicit Answer_Reader(std::string root) : expected_(std::move(root)) {}
  bool accepts(const std::string& root) override { return root == expected_ || root == "Error"; }
  void end(const Path& path, std::string& text) final;
  virtual void element(const Path& path, std::string& text) = 0;

private:
  std::string expected_;
  Error_Document error_;
};

/// How common prefixes come on pages whose keys are encoded.
enum class Prefix_Form { UNKNOWN, ENCODED, PLAIN };

/// A page of a bucket's keys, straight into its records. Keys come as bytes once `complete` has answered true.
class Listing_Reader : public Answer_Reader {
public:
  explicit Listing_Reader(Get_Bucket_Content& content);
  /// Decodes what the service encoded and settles where the next page begins. `param` is what was asked for. False when
  /// the page does not lead on; `error_code` is then "ListingDoesNotAdvance".
  bool complete(const Get_Bucket_Parameter& param);
  /// What on a completed page is no key below the prefix that was asked for, as a text; empty where all of it is.
  std::string strange_name(const Get_Bucket_Parameter& param) const;
  /// Keys are encoded whatever the page says. Before `complete`.
  void assume_encoded() { encoded_ = true; }
  /// The page says that its keys are encoded.
  bool says_encoded() const { return encoded_; }

  /// A version 2 page is asked for; it may begin again with what ends with the marker where `repeats` says so.
  void version_2(bool repeats) {
    version_2_ = true;
    repeats_ = repeats;
  }
  /// What a version 2 page names to go on; empty where it names nothing.
  const std::string& token() const { return token_; }
  /// The page counts its keys, as only those of version 2 do.
  bool counts_keys() const { return counts_keys_; }
  /// Whether the service encodes common prefixes where it encodes keys; some say that they do and do not. Before
  /// `complete`.
  void prefix_form(Prefix_Form form) { prefix_form_ = form; }
  /// What the page itself tells about that. `doubtful` becomes the prefixes, as they came, that are others decoded.
  Prefix_Form find_prefix_form(std::vector<std::string>& doubtful) const;

protected:
  void begin(const Path& path) override;
  bool wants(const Path& path) const override;
  void element(const Path& path, std::string& text) override;

private:
  Get_Bucket_Content& content_;
  bool encoded_ = false;
  bool version_2_ = false;
  bool repeats_ = false;
  bool counts_keys_ = false;
  std::string token_;
  Prefix_Form prefix_form_ = Prefix_Form::UNKNOWN;
};

/// The account's buckets.
class Buckets_Reader : public Answer_Reader {
public:
  explicit Buckets_Reader(Get_Service_Content& content) : Answer_Reader("ListAllMyBucketsResult"), content_(content) {}

protected:
  void begin(const Path& path) override;
  void element(const Path& path, std::string& text) override;

private:
  Get_Service_Content& content_;
};

/// The answer to one small question: the text of one element, or of the root itself where `element` is empty.
class Text_Reader : public Answer_Reader {
public:
  Text_Reader(const char* root, const char* element) : Answer_Reader(root), element_(element) {}
  const std::string& text() const { return text_; }

protected:
  void element(const Path& path, std::string& text) override;

private:
  std::string element_;
  std::string text_;
};

} // namespace s3
