#include "agent/lines.h"

#include "platform/base/printable.h"

#include <cstdio>

void Lines::add(const std::string& line) {
  text_ += printable(line) + "\n";
}

void Lines::add(const std::string& line, const std::string& word) {
  const std::string shown = printable(word);
  std::string quoted = shown == word && word.find('\'') == std::string::npos ? "'" : "$'";
  for (const char c : shown)
    quoted += c == '\'' ? std::string("\\'") : std::string(1, c);
  text_ += printable(line) + quoted + "'\n";
}

void print_lines(const Lines& lines) {
  std::fwrite(lines.text().data(), 1, lines.text().size(), stdout);
}

void print_line(const std::string& line) {
  const std::string text = printable(line) + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void print_json_line(const json_spirit::Value& value) {
  const std::string text = json_spirit::write_utf8(value) + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
}

void print_error(const std::string& message) {
  const std::string text = "obs-agent: " + printable(message) + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}
