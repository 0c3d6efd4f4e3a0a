#pragma once

#include <string>

/// The machine that the agent runs on.
class Host_Manager {
public:
  static Host_Manager* instance();
  std::string name() const;       ///< the machine's host name
  bool on_backupd() const;        ///< true where the agent runs beside the backup server
  std::string access_key() const; ///< key that client I/O presents; empty when there is none
  std::string node_access_key() const;
};
