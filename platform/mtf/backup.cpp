#include "sdk/mtf/mtf_backup.h"

#include "platform/file_backup/set_catalog.h"
#include "platform/mtf/backup_engine.h"
#include "platform/mtf/source_order.h"
#include "sdk/file_backup/file_backup.h"

MTF_Compression compression_to_mtf(Compression_Method method) {
  switch (method) {
  case COMPR_AUTO:
    return MTF_COMPRESSION_AUTO;
  case COMPR_LZOP:
    return MTF_COMPRESSION_LZOP;
  case COMPR_ZSTD:
    return MTF_COMPRESSION_ZSTD;
  default:
    return MTF_COMPRESSION_NONE;
  }
}

struct MTF_Backup::Impl {
  Impl(MTF::Event_Handler_var h, MTF::Metadata& m, std::shared_ptr<ACE_Log_Msg_Callback> l)
      : handler(h), metadata(m), log(std::move(l)) {}

  void ask_store();

  MTF::Event_Handler_var handler;
  MTF::Metadata& metadata;
  std::shared_ptr<ACE_Log_Msg_Callback> log;
  Backup_Order order;
  std::string pool_uuid;
  std::string device_uuid;
  std::string host_uuid;
  std::string minor_resource_id;
  std::string cache_path;
  unsigned seq = 0;
  unsigned base_seq = 0;
  std::unique_ptr<Backup_Engine> engine; ///< keeps the set's folder locked until it is committed
};

/// What the agent's database knows beyond what lies in the pool. Without it, or where it cannot be read, the pool alone
/// decides.
void MTF_Backup::Impl::ask_store() {
  Store* const store = Store::instance();
  const std::string& pool = pool_uuid.empty() ? device_uuid : pool_uuid;
  std::string error;
  Set base;
  bool found = false;
  if (store == nullptr || !numbers_in_use(*store, pool, minor_resource_id, order.uuid, order.numbers, error))
    return;
  // The number came from the last instance; another set may have it too.
  if (seq != 0 && store->newest_set(pool, minor_resource_id, base, found, error) && found && base.seq == seq)
    order.base_uuid = base.uuid;
}

MTF_Backup::MTF_Backup(MTF::Event_Handler_var event_handler, MTF::Metadata& metadata,
                       std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl(event_handler, metadata, std::move(log))) {}

MTF_Backup::~MTF_Backup() = default;

void MTF_Backup::add_source(const std::string& path) {
  impl_->order.sources.push_back(path);
}
void MTF_Backup::action_handler(Action_Handler_var handler) {
  impl_->order.actions = handler;
}
void MTF_Backup::callback_factory(MTF::IBackup_Callback_Factory_var factory) {
  impl_->order.factory = factory;
}
void MTF_Backup::filter(const MTF::IFilter* filter) {
  impl_->order.filter = filter;
}
void MTF_Backup::pool_uuid(const std::string& uuid) {
  impl_->pool_uuid = uuid;
}
void MTF_Backup::device_uuid(const std::string& uuid) {
  impl_->device_uuid = uuid;
}
void MTF_Backup::host_uuid(const std::string& uuid) {
  impl_->host_uuid = uuid;
}
void MTF_Backup::minor_resource_id(const std::string& id) {
  impl_->minor_resource_id = id;
}
void MTF_Backup::uuid(const std::string& uuid) {
  impl_->order.uuid = uuid;
}
void MTF_Backup::seq(unsigned seq) {
  impl_->seq = seq;
}
void MTF_Backup::channel_num(unsigned channels) {
  impl_->order.channels = channels;
}
void MTF_Backup::compression(MTF_Compression method) {
  impl_->order.codec.compression = method;
}
void MTF_Backup::compression_level(int level) {
  impl_->order.codec.level = level;
}
Client_IO_Base::Options& MTF_Backup::extra_client_io_opts() {
  return impl_->order.io;
}
void MTF_Backup::uri_prefix(const std::string& prefix) {
  impl_->order.uri_prefix = prefix;
}
void MTF_Backup::base_seq(unsigned seq) {
  impl_->base_seq = seq;
}
void MTF_Backup::cache_path(const std::string& path) {
  impl_->cache_path = path;
}
void MTF_Backup::scan_fs_threads(unsigned threads) {
  impl_->order.scan_threads = threads == 0 ? Backup_Order().scan_threads : threads;
}
void MTF_Backup::incremental(bool value) {
  impl_->order.incremental = value;
}

bool MTF_Backup::backup(const std::string& target) {
  Impl& i = *impl_;
  i.order.base_seq = i.seq;
  i.ask_store();
  if (Job* const job = Job::current())
    i.order.deletions = deletion_limits(job->definition());
  i.order.asked = i.order.sources;
  i.order.sources = arrange_sources(std::move(i.order.sources));
  std::string pool_uuid = i.pool_uuid;
  std::string location = target;
  if (i.order.uri_prefix.empty())
    i.order.uri_prefix = i.host_uuid + "/" + i.minor_resource_id + "/";
  i.engine.reset(new Backup_Engine(i.order, i.handler, i.metadata, i.log));
  if (location.empty()) {
    Pool_Info pool;
    if (!get_pool_info(i.pool_uuid, i.device_uuid, pool))
      return i.engine->refuse(MTF::E_GET_POOL_INFO, "There is no pool '" + i.pool_uuid + "'.");
    location = pool.location;
    pool_uuid = pool.uuid;
  }
  return i.engine->run(location, pool_uuid);
}

MTF::Error_Code MTF_Backup::err_code() const {
  return impl_->engine ? impl_->engine->err_code() : MTF::E_OK;
}
unsigned long long MTF_Backup::size() const {
  return impl_->engine ? impl_->engine->size() : 0;
}
unsigned long long MTF_Backup::set_size() const {
  return impl_->engine ? impl_->engine->set_size() : 0;
}
unsigned long long MTF_Backup::set_storage_size() const {
  return impl_->engine ? impl_->engine->set_storage_size() : 0;
}
