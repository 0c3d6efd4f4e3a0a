#include "sdk/mtf/client_io.h"

#include "sdk/job/host_manager.h"
#include "sdk/job/job_definition.h"

void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& definition, unsigned channels) {
  options.max_seconds_retry = definition.max_seconds_retry();
  options.resumption_buffer_size = definition.resumption_buffer_size();
  options.server_side_dedup = definition.server_side_dedup();
  options.readers = definition.readers();

  const ACE_UINT64 limit = definition.rate_limit();
  const ACE_UINT64 share = limit / (channels == 0 ? 1 : channels);
  // A share of 0 would mean no limit at all.
  options.channel_rate_limit = limit != 0 && share == 0 ? 1 : share;
}

void set_options_by_host(Client_IO_Base::Options& options) {
  const Host_Manager& host = *Host_Manager::instance();
  options.access_key = host.on_backupd() ? host.node_access_key() : host.access_key();
}
