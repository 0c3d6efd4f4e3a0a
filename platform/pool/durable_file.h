#pragma once

#include <string>

/// Writes `content` to `folder`/`name` so that after a crash the file is there whole or as it was: temporary file,
/// fsync, rename, fsync of the folder. False with the reason, the temporary file removed.
bool write_durable_file(const std::string& folder, const std::string& name, const std::string& content,
                        std::string& error);
/// Reads a file of at most `limit` bytes. False with the reason; `missing` tells an absent file.
bool read_small_file(const std::string& path, size_t limit, std::string& content, std::string& error, bool& missing);
/// Makes the entries of `folder` durable. False with the reason.
bool sync_folder(const std::string& folder, std::string& error);
