#include "sdk/job/host_manager.h"

#include <climits>

#include <unistd.h>

Host_Manager* Host_Manager::instance() {
  static Host_Manager manager;
  return &manager;
}

std::string Host_Manager::name() const {
  // The last byte stays zero: a name that was cut short need not be terminated.
  char name[HOST_NAME_MAX + 2] = {};
  return gethostname(name, sizeof name - 1) == 0 && name[0] != '\0' ? name : "localhost";
}

// The agent keeps accounts, pools and sets in its own database: there is no other machine to present a key to.
bool Host_Manager::on_backupd() const {
  return true;
}
std::string Host_Manager::access_key() const {
  return std::string();
}
std::string Host_Manager::node_access_key() const {
  return std::string();
}
