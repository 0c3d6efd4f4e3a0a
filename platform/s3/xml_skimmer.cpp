#include "platform/s3/xml_skimmer.h"

#include <array>
#include <cstring>

namespace s3 {
namespace {

constexpr size_t MAX_DEPTH = 4;
constexpr size_t MAX_TAGS = 64;

struct Reference {
  std::string_view text;
  char character;
};
constexpr Reference REFERENCES[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};

const Reference* reference_at(std::string_view text) {
  for (const Reference& one : REFERENCES)
    if (text.substr(0, one.text.size()) == one.text)
      return &one;
  return nullptr;
}

/// Whether a reference begins with all of `text`.
bool begins_reference(std::string_view text) {
  for (const Reference& one : REFERENCES)
    if (one.text.substr(0, text.size()) == text)
      return true;
  return false;
}

bool is_name_character(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

/// By byte: what may stand in a text, and what begins a reference.
constexpr std::array<unsigned char, 256> make_kinds() {
  std::array<unsigned char, 256> kinds = {};
  for (unsigned c = ' '; c < 0x7F; ++c)
    kinds[c] = c == '<' || c == '>' ? 0 : c == '&' ? 2 : 1;
  return kinds;
}
constexpr std::array<unsigned char, 256> KINDS = make_kinds();

/// The text from `at` up to the next "<". Null when it is not plain.
const char* text_end(const char* at, const char* end, bool& escaped) {
  escaped = false;
  for (; at != end && *at != '<'; ++at) {
    const unsigned kind = KINDS[static_cast<unsigned char>(*at)];
    if (kind == 1)
      continue;
    if (kind == 0)
      return nullptr;
    escaped = true;
    const std::string_view rest(at, static_cast<size_t>(end - at));
    if (reference_at(rest) == nullptr && !begins_reference(rest))
      return nullptr;
  }
  return at;
}

} // namespace

XML_Skimmer::Result XML_Skimmer::element(const char* data, size_t size, size_t& used) {
  tags_.clear();
  std::array<std::string_view, MAX_DEPTH> open;
  size_t depth = 0;
  const char* at = data;
  const char* const end = data + size;
  do {
    if (at == end)
      return PARTIAL;
    if (*at != '<' || depth == MAX_DEPTH || tags_.size() >= MAX_TAGS)
      return NOT_PLAIN;
    const char* const name = ++at;
    while (at != end && is_name_character(*at))
      ++at;
    if (at == end)
      return PARTIAL;
    if (*at != '>' || at == name || *name < 'A')
      return NOT_PLAIN;
    open[depth++] = std::string_view(name, static_cast<size_t>(at - name));
    tags_.push_back({true, false, open[depth - 1], std::string_view()});
    bool escaped = false;
    const char* const text = ++at;
    at = text_end(at, end, escaped);
    if (at == nullptr)
      return NOT_PLAIN;
    std::string_view content(text, static_cast<size_t>(at - text));
    // Ends, one after the other, until the next element begins.
    for (;;) {
      if (end - at < 2)
        return PARTIAL;
      if (at[1] != '/')
        break;
      const std::string_view& closed = open[depth - 1];
      const size_t length = closed.size() + 3;
      const size_t have = static_cast<size_t>(end - at);
      if (have < length)
        return PARTIAL;
      if (std::memcmp(at + 2, closed.data(), closed.size()) != 0 || at[length - 1] != '>')
        return NOT_PLAIN;
      if (tags_.size() >= MAX_TAGS)
        return NOT_PLAIN;
      tags_.push_back({false, escaped, closed, content});
      content = std::string_view();
      escaped = false;
      at += length;
      if (--depth == 0) {
        used = static_cast<size_t>(at - data);
        return WHOLE;
      }
      if (at == end)
        return PARTIAL;
      if (*at != '<')
        return NOT_PLAIN;
    }
    if (!content.empty())
      return NOT_PLAIN;
  } while (true);
}

void XML_Skimmer::unescape(std::string_view text, std::string& out) {
  out.clear();
  while (!text.empty()) {
    const size_t next = text.find('&');
    out.append(text.substr(0, next));
    if (next == std::string_view::npos)
      return;
    text.remove_prefix(next);
    const Reference* const reference = reference_at(text);
    out.push_back(reference != nullptr ? reference->character : '&');
    text.remove_prefix(reference != nullptr ? reference->text.size() : 1);
  }
}

} // namespace s3
