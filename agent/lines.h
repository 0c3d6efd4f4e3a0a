#pragma once

#include "sdk/json/json_spirit.h"

#include <string>

// Everything that the program says to people goes through here, a line at a time. Inside the program names and messages
// are the bytes that they are; here, and in the log, each line is escaped as a whole (platform/base/printable.h), so
// that what others wrote cannot look like lines of the program.

/// Several lines for people. A line is text without its line end; one inside is escaped.
class Lines {
public:
  Lines() = default;
  /// One line; none when it is empty. Not explicit: most commands have one line to say.
  Lines(const std::string& line) {
    if (!line.empty())
      add(line);
  }
  Lines(const char* line) : Lines(std::string(line)) {}

  void add(const std::string& line);
  /// The same with a word after it that is to be copied into a command line: a shell reads it as its bytes.
  void add(const std::string& line, const std::string& word);
  void append(const Lines& lines) { text_ += lines.text_; }
  bool empty() const { return text_.empty(); }
  /// As it is printed: escaped, each line with its end.
  const std::string& text() const { return text_; }

private:
  std::string text_;
};

/// Writes to standard output: lines; one line; one line of JSON, which has rules of its own (README.md, "JSON").
void print_lines(const Lines& lines);
void print_line(const std::string& line);
void print_json_line(const json_spirit::Value& value);
/// Writes "obs-agent: MESSAGE" to standard error, as one line.
void print_error(const std::string& message);
