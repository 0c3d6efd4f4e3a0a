#pragma once

#include <string>

// What the file of a lock says of who holds it: "PID HOST" and a line end; earlier versions wrote the "PID" alone. The
// host is there because folders may be on a file system that several share. The locks themselves do not depend on it.

/// "process PID on host HOST"; `unknown` where the file does not say.
std::string lock_holder(int fd, const char* unknown);
/// Writes this process into the file of a lock that it holds.
void name_lock_holder(int fd);
