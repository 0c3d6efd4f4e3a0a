#pragma once

#include <string>
#include <vector>

#include <sys/stat.h>

/// The one way to what lies in a pool. A pool may lie where others can write, so whatever is found in it may have been
/// put there to lead somewhere else or to keep a program waiting: below the folder of a pool that is known here no link
/// is followed, neither as a file nor on the way to it, and only regular files are opened, without waiting for anybody.
/// The way begins at the pool's own folder as it was when the pool was opened; that one may be a link, as the operator
/// wishes. Elsewhere (the state folder, a medium that the operator names) links are followed, and the rest holds.
///
/// All take whole paths. Any thread.

/// Makes the pool in `folder` known, in place of one that was there before; the last 64 are kept. False with errno.
bool know_pool_folder(const std::string& folder);

/// A descriptor, as ::open with O_CLOEXEC; -1 with errno. O_CREAT makes a file of mode 0600.
int open_pool_file(const std::string& path, int flags);
/// The same of a folder, for ::fsync and for going through it.
int open_pool_folder(const std::string& path);
/// As ::mkdir with mode 0700, ::rename, ::unlink and ::lstat; false with errno.
bool make_pool_folder(const std::string& path);
bool rename_pool_file(const std::string& from, const std::string& to);
bool remove_pool_file(const std::string& path);
bool find_pool_file(const std::string& path, struct stat& status);

/// Names in a folder, sorted. False with errno.
bool read_pool_folder(const std::string& path, std::vector<std::string>& names);
/// Removes a folder with all that is in it, links themselves and not what they lead to. False with the reason.
bool remove_pool_tree(const std::string& path, std::string& error);

/// The path of an open file as the system knows it, without links; empty with errno.
std::string path_of_file(int fd);
/// What errno says after any of these, for people: "it is a link, which is not followed in a pool".
std::string pool_file_error(int code);
