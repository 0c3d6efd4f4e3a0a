#pragma once

#include <memory>
#include <string>

/// The file under a medium being written: collects what comes and writes it in large pieces. One thread. A failure
/// stays: every further call fails, and `error` keeps the first reason.
class Medium_Writer_File {
public:
  /// What small pieces are gathered to.
  static constexpr size_t PIECE = 1024 * 1024;
  /// What goes straight to the file.
  static constexpr size_t LARGE = 64 * 1024;

  Medium_Writer_File() = default;
  ~Medium_Writer_File();
  Medium_Writer_File(const Medium_Writer_File&) = delete;
  Medium_Writer_File& operator=(const Medium_Writer_File&) = delete;

  /// Makes the file, which must not exist.
  bool create(const std::string& path);
  bool append(const char* data, size_t size);
  /// Cuts back to `size`, which is at most what was appended.
  bool cut(unsigned long long size);
  /// Writes what was gathered so far.
  bool flush();
  /// Writes all, makes file and folder entry durable and closes.
  bool close();
  unsigned long long size() const { return flushed_ + used_; }
  const std::string& error() const { return error_; }

private:
  bool write(const char* data, size_t size);
  bool fail(const std::string& what, int error);

  int fd_ = -1;
  std::string path_;
  std::string error_;
  std::unique_ptr<char[]> piece_;
  size_t used_ = 0;
  unsigned long long flushed_ = 0;
};
