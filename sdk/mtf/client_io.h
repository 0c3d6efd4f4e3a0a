#pragma once

#include <ace/Basic_Types.h>

#include <string>

class Job_Definition;

class Client_IO_Base {
public:
  /// How an engine's channels move their data.
  struct Options {
    int max_seconds_retry = 300;           ///< seconds; -1: no bound
    ACE_UINT64 resumption_buffer_size = 0; ///< bytes
    ACE_UINT64 channel_rate_limit = 0;     ///< bytes per second of one channel; 0: none
    bool server_side_dedup = false;
    unsigned readers = 0; ///< requests in flight over the whole run; 0: the engine's default
    std::string access_key;
  };
};

/// Copies what the definition says; its rate limit is shared out over `channels` (0 counts as 1).
void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& definition, unsigned channels);
/// Copies the host's access key: the node's own where the agent runs beside the backup server.
void set_options_by_host(Client_IO_Base::Options& options);
