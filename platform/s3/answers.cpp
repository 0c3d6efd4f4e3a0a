#include "platform/s3/answers.h"

#include "platform/s3/percent_encoding.h"
#include "sdk/base/time_format.h"

#include <algorithm>
#include <cctype>
#include <limits>

namespace s3 {
namespace {

/// No service puts more than 1,000 on a page unless asked to.
constexpr size_t MAX_RECORDS = 10000;
/// Of buckets there may be as many, on one page.
constexpr size_t MAX_BUCKETS = 100000;

class Error_Reader : public Answer_Reader {
public:
  Error_Reader() : Answer_Reader("Error") {}

protected:
  void element(const Path&, std::string&) override {}
};

bool starts_with(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

/// Some services say that they encode and then encode keys but not prefixes. What cannot have been encoded, or leads
/// out of the listed prefix only when decoded, is taken as it stands.
void decode(std::string& text, const std::string& prefix) {
  if (text.find('%') == std::string::npos && text.find('+') == std::string::npos)
    return;
  std::string bytes;
  if (percent_decode(text, true, bytes) && (starts_with(bytes, prefix) || !starts_with(text, prefix)))
    text = std::move(bytes);
}

/// True when a letter or a digit is written as an escape. `text` can be decoded.
bool has_escaped_letter(const std::string& text) {
  for (size_t at = text.find('%'); at != std::string::npos; at = text.find('%', at + 3)) {
    const int byte = std::stoi(text.substr(at + 1, 2), nullptr, 16);
    if (byte < 0x80 && std::isalnum(byte))
      return true;
  }
  return false;
}

/// Days since the epoch of a date of the Gregorian calendar.
long long days_from_civil(int year, unsigned month, unsigned day) {
  year -= month <= 2;
  const long long era = (year >= 0 ? year : year - 399) / 400;
  const unsigned of_era = static_cast<unsigned>(year - era * 400);
  const unsigned of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  return era * 146097 + static_cast<long long>(of_era * 365 + of_era / 4 - of_era / 100 + of_year) - 719468;
}

bool number_at(std::string_view text, size_t at, size_t digits, unsigned& value) {
  value = 0;
  for (size_t i = at; i < at + digits; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9')
      return false;
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return true;
}

} // namespace

bool parse_iso_time(std::string_view text, long long& time) {
  unsigned year, month, day, hour, minute, second;
  if (text.size() < 20 || text.back() != 'Z' || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
      text[13] != ':' || text[16] != ':' || !number_at(text, 0, 4, year) || !number_at(text, 5, 2, month) ||
      !number_at(text, 8, 2, day) || !number_at(text, 11, 2, hour) || !number_at(text, 14, 2, minute) ||
      !number_at(text, 17, 2, second) || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 ||
      second > 60)
    return false;
  time = days_from_civil(static_cast<int>(year), month, day) * 86400 + hour * 3600 + minute * 60 + second;
  return true;
}

bool parse_size(std::string_view text, ACE_UINT64& size) {
  size = 0;
  for (const char c : text) {
    if (c < '0' || c > '9')
      return false;
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (size > (std::numeric_limits<ACE_UINT64>::max() - digit) / 10)
      return false;
    size = size * 10 + digit;
  }
  return !text.empty();
}

Error_Document parse_error(std::string_view document) {
  Error_Reader reader;
  reader.feed(document.data(), document.size());
  return reader.is_error() ? reader.error() : Error_Document();
}

void Answer_Reader::end(const Path& path, std::string& text) {
  if (!is_error())
    return element(path, text);
  if (is(path, "Code"))
    error_.code = std::move(text);
  else if (is(path, "Message"))
    error_.message = std::move(text);
  else if (is(path, "Region"))
    error_.region = std::move(text);
  else if (is(path, "Endpoint"))
    error_.endpoint = std::move(text);
  else if (is(path, "RequestId"))
    error_.request_id = std::move(text);
  else if (is(path, "StorageClass"))
    error_.storage_class = std::move(text);
}

Listing_Reader::Listing_Reader(Get_Bucket_Content& content) : Answer_Reader("ListBucketResult"), content_(content) {
  content_ = Get_Bucket_Content();
}

void Listing_Reader::begin(const Path& path) {
  if (!is(path, "Contents"))
    return;
  if (content_.objects.size() >= MAX_RECORDS)
    return refuse("the page has too many keys");
  content_.objects.emplace_back();
  content_.objects.back().exists = true;
}

/// Of an entry what the records have, and its own end. ETags are in every listing and nobody asks listings for them.
bool Listing_Reader::wants(const Path& path) const {
  if (path.size() < 2 || path[0] != "Contents" || is_error())
    return true;
  const std::string& name = path[1];
  return path.size() == 2 && (name == "Key" || name == "Size" || name == "LastModified" || name == "StorageClass");
}

void Listing_Reader::element(const Path& path, std::string& text) {
  if (path.size() == 2 && path[0] == "Contents") {
    S3_Object& object = content_.objects.back();
    const std::string& name = path[1];
    if (name == "Key") {
      object.name = std::move(text);
    } else if (name == "Size") {
      if (!parse_size(text, object.size))
        refuse("the size of a key is no number");
    } else if (name == "LastModified") {
      long long time = 0;
      if (!parse_iso_time(text, time))
        refuse("the date of a key is none");
      object.mtime = time < 0 ? 0 : static_cast<ACE_UINT64>(time);
    } else if (name == "StorageClass") {
      if (text != "STANDARD")
        object.storage_class = std::move(text);
    }
  } else if (is(path, "CommonPrefixes", "Prefix")) {
    if (content_.common_prefixes.size() >= MAX_RECORDS)
      return refuse("the page has too many prefixes");
    content_.common_prefixes.push_back(std::move(text));
  } else if (is(path, "IsTruncated")) {
    content_.truncated = text == "true";
  } else if (is(path, "NextMarker")) {
    content_.next_marker = std::move(text);
  } else if (is(path, "NextContinuationToken")) {
    token_ = std::move(text);
  } else if (is(path, "KeyCount")) {
    counts_keys_ = true;
  } else if (is(path, "EncodingType")) {
    encoded_ = encoded_ || text == "url";
  } else if (is(path, "Contents")) {
    if (content_.objects.back().name.empty())
      refuse("an entry of the page has no key");
  }
}

Prefix_Form Listing_Reader::find_prefix_form(std::vector<std::string>& doubtful) const {
  doubtful.clear();
  if (!encoded_)
    return Prefix_Form::PLAIN;
  for (const std::string& prefix : content_.common_prefixes) {
    std::string bytes;
    // What no encoder would have left, or made.
    if (!percent_decode(prefix, true, bytes) || has_escaped_letter(prefix))
      return Prefix_Form::PLAIN;
    if (bytes != prefix)
      doubtful.push_back(prefix);
  }
  return Prefix_Form::UNKNOWN;
}

bool Listing_Reader::complete(const Get_Bucket_Parameter& param) {
  std::string last;
  for (S3_Object& object : content_.objects) {
    if (encoded_)
      decode(object.name, param.prefix());
    if (object.name > last)
      last = object.name;
  }
  for (std::string& prefix : content_.common_prefixes) {
    if (encoded_ && prefix_form_ != Prefix_Form::PLAIN)
      decode(prefix, param.prefix());
    if (prefix > last)
      last = prefix;
  }
  if (repeats_) {
    const auto passed = [&](const std::string& name) { return name <= param.marker(); };
    content_.objects.erase(std::remove_if(content_.objects.begin(), content_.objects.end(),
                                          [&](const S3_Object& object) { return passed(object.name); }),
                           content_.objects.end());
    content_.common_prefixes.erase(
        std::remove_if(content_.common_prefixes.begin(), content_.common_prefixes.end(), passed),
        content_.common_prefixes.end());
  }
  if (!content_.truncated) {
    content_.next_marker.clear();
    return true;
  }
  if (version_2_) {
    // An empty page may be followed by others: all is settled by its token.
    content_.next_marker = last;
    return last.empty() ? !token_.empty() : last > param.marker();
  }
  std::string decoded;
  if (content_.next_marker.empty() || content_.next_marker == last) {
    content_.next_marker = last;
  } else if (encoded_ && percent_decode(content_.next_marker, true, decoded) && decoded != content_.next_marker) {
    // Some services (radosgw) encode the keys but not the marker, and "a+b" may then be either. Where the page itself
    // ends is a marker, too, and certain.
    content_.next_marker = last.empty() ? decoded : last;
  }
  return content_.next_marker > param.marker();
}

std::string Listing_Reader::strange_name(const Get_Bucket_Parameter& param) const {
  const std::string& prefix = param.prefix();
  const auto quoted = [](const std::string& name) {
    return '\'' + name.substr(0, 64) + (name.size() > 64 ? "...'" : "'");
  };
  const auto strange = [&](const char* what, const std::string& name, bool may_equal) -> std::string {
    if (name.size() > MAX_KEY)
      return std::string(what) + ' ' + quoted(name) + " has " + std::to_string(name.size()) + " bytes";
    if (!starts_with(name, prefix) || (name.size() == prefix.size() && !may_equal))
      return std::string(what) + ' ' + quoted(name) + " does not lie below the prefix";
    return std::string();
  };
  for (const S3_Object& object : content_.objects)
    if (std::string why = strange("the key", object.name, true); !why.empty())
      return why;
  for (const std::string& name : content_.common_prefixes)
    if (std::string why = strange("the common prefix", name, false); !why.empty())
      return why;
  if (content_.next_marker.size() > 4 * MAX_KEY) // some are no keys
    return "the marker has " + std::to_string(content_.next_marker.size()) + " bytes";
  return std::string();
}

void Buckets_Reader::begin(const Path& path) {
  if (!is(path, "Buckets", "Bucket"))
    return;
  if (content_.buckets.size() >= MAX_BUCKETS)
    return refuse("the page has too many buckets");
  content_.buckets.emplace_back();
}

void Buckets_Reader::element(const Path& path, std::string& text) {
  if (path.size() == 3 && path[0] == "Buckets" && path[1] == "Bucket") {
    S3_Bucket& bucket = content_.buckets.back();
    const std::string& name = path[2];
    if (name == "Name") {
      bucket.name = std::move(text);
    } else if (name == "CreationDate") {
      long long time = 0;
      bucket.ctime = parse_iso_time(text, time) ? to_time_t(time) : 0;
    } else if (name == "Location") {
      bucket.location = std::move(text);
    } else if (name == "BucketRegion" || name == "Region") {
      bucket.region = std::move(text);
    }
  } else if (is(path, "Owner", "DisplayName")) {
    if (!text.empty())
      content_.owner = std::move(text);
  } else if (is(path, "Owner", "ID")) {
    if (content_.owner.empty())
      content_.owner = std::move(text);
  } else if (is(path, "IsTruncated")) {
    content_.truncated = text == "true";
  } else if (is(path, "NextMarker")) {
    content_.next_marker = std::move(text);
  }
}

void Text_Reader::element(const Path& path, std::string& text) {
  if (element_.empty() ? path.empty() : is(path, element_))
    text_ = std::move(text);
}

} // namespace s3
