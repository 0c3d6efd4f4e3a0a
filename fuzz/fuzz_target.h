#pragma once

#include <string>
#include <string_view>
#include <vector>

// What a fuzz target defines. The driver calls it from one thread.

/// Handles one input. Whatever the bytes are, it returns: a crash, a sanitizer's report, a leak, an exception, `fail`
/// or a call that takes too long is a finding.
void fuzz_one(std::string_view input);

/// Words that inputs of this kind are made of, for mutations to put in.
const std::vector<std::string>& fuzz_words();

/// Sets checksums and other redundancy right again, so that a mutated input is not refused at the first of them. The
/// driver calls it on some of the inputs. Most formats have none.
void fuzz_mend(std::string& input);

/// Ends the program: the target found something that must not be. `what` names it.
[[noreturn]] void fuzz_fail(const std::string& what);

/// A file with the bytes of an input, for code that opens files by name.
class Fuzz_File {
public:
  /// In memory.
  Fuzz_File();
  /// At `path`, where there is none; it goes with the object.
  explicit Fuzz_File(const std::string& path);
  ~Fuzz_File();
  Fuzz_File(const Fuzz_File&) = delete;
  Fuzz_File& operator=(const Fuzz_File&) = delete;
  /// Replaces the content.
  void fill(std::string_view bytes);
  const std::string& path() const { return path_; }

private:
  int fd_;
  bool named_;
  std::string path_;
};
