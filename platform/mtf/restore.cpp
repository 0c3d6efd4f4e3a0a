#include "sdk/mtf/mtf_restore.h"

#include "platform/mtf/restore_engine.h"
#include "sdk/file_backup/file_backup.h"
#include "sdk/job/job.h"

struct MTF_Restore::Impl {
  Impl(MTF::Event_Handler_var h, std::shared_ptr<ACE_Log_Msg_Callback> l) : handler(h), log(std::move(l)) {}

  MTF::Event_Handler_var handler;
  std::shared_ptr<ACE_Log_Msg_Callback> log;
  Restore_Order order;
  Client_IO_Base::Options io;
  std::string target_location;
  std::string pool_uuid;
  std::string definition_uuid;
  std::string backup_host_uuid;
  std::string cache_path;
  unsigned channels = 0;
  bool standalone = false;
  std::unique_ptr<Restore_Engine> engine;
};

MTF_Restore::MTF_Restore(MTF::Event_Handler_var event_handler, std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl(event_handler, std::move(log))) {}

MTF_Restore::~MTF_Restore() = default;

void MTF_Restore::path_converter(MTF_FS::IPath_Converter_var converter) {
  impl_->order.converter = converter;
}
void MTF_Restore::action_handler(Action_Handler_var handler) {
  impl_->order.actions = handler;
}
void MTF_Restore::callback_factory(MTF::IRestore_Callback_Factory_var factory) {
  impl_->order.factory = factory;
}
void MTF_Restore::target_location(const std::string& location) {
  impl_->target_location = location;
}
void MTF_Restore::backup_uri_prefix(const std::string& prefix) {
  impl_->order.uri_prefix = prefix;
}
void MTF_Restore::pool_uuid(const std::string& uuid) {
  impl_->pool_uuid = uuid;
}
void MTF_Restore::definition_uuid(const std::string& uuid) {
  impl_->definition_uuid = uuid;
}
void MTF_Restore::backup_host_uuid(const std::string& uuid) {
  impl_->backup_host_uuid = uuid;
}
void MTF_Restore::backup_minor_resource_id(const std::string& id) {
  impl_->order.minor_resource_id = id;
}
void MTF_Restore::seq(ACE_INT64 seq) {
  impl_->order.seq = static_cast<unsigned long long>(seq);
}
void MTF_Restore::restore_select(const std::list<json_spirit::Value>& entries) {
  impl_->order.select = entries;
}
Client_IO_Base::Options& MTF_Restore::extra_client_io_opts() {
  return impl_->io;
}
void MTF_Restore::incarnation(const std::string& incarnation) {
  impl_->order.incarnation = incarnation;
}
void MTF_Restore::channel_num(unsigned channels) {
  impl_->channels = channels;
}
void MTF_Restore::concurrent(unsigned channels) {
  impl_->order.concurrent = channels;
}
void MTF_Restore::standalone(bool value) {
  impl_->standalone = value;
}
void MTF_Restore::cache_path(const std::string& path) {
  impl_->cache_path = path;
}

bool MTF_Restore::restore(const std::string& target) {
  Impl& i = *impl_;
  if (Job* const job = Job::current()) {
    i.order.set_uuid = job->definition().set_uuid();
    i.order.only_different = job->definition().only_different();
  }
  if (i.order.uri_prefix.empty())
    i.order.uri_prefix = i.backup_host_uuid + "/" + i.order.minor_resource_id;
  i.engine.reset(new Restore_Engine(i.order, i.handler, i.log));
  std::string location = target;
  if (location.empty() && i.standalone)
    location = i.target_location;
  if (location.empty() && !get_url_by_pool_uuid(i.pool_uuid, nullptr, location, false, nullptr))
    return i.engine->refuse(MTF::E_GET_POOL_INFO, "There is no pool '" + i.pool_uuid + "'.");
  return i.engine->run(location, i.pool_uuid);
}

MTF::Error_Code MTF_Restore::err_code() const {
  return impl_->engine ? impl_->engine->err_code() : MTF::E_OK;
}
unsigned long long MTF_Restore::size() const {
  return impl_->engine ? impl_->engine->size() : 0;
}
unsigned long long MTF_Restore::set_size() const {
  return impl_->engine ? impl_->engine->set_size() : 0;
}
