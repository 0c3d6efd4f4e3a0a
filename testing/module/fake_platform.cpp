#include "testing/module/fake_platform.h"

#include "sdk/crypto/obs_sk_decryptor.h"
#include "sdk/job/job_mutex.h"

#include <cerrno>

namespace module_testing {

namespace {

std::unique_ptr<Fake_Platform_Script>& script() {
  static std::unique_ptr<Fake_Platform_Script> one(new Fake_Platform_Script);
  return one;
}

} // namespace

Fake_Platform_Script& fake_platform() {
  return *script();
}
void reset_fake_platform() {
  script().reset(new Fake_Platform_Script);
}

} // namespace module_testing

// Everything below takes the place of the platform's in the test program.

using module_testing::fake_platform;

namespace {

class Fake_Mutex : public Job_Mutex {
public:
  int acquire() override {
    fake_platform().call("mutex.acquire");
    return fake_platform().mutex ? 0 : -1;
  }
  int tryacquire() override { return acquire(); }
  int release() override {
    fake_platform().call("mutex.release");
    return 0;
  }
  int remove() override { return 0; }
};

std::string text(const std::string& value) {
  return value;
}
std::string text(bool value) {
  return value ? "true" : "false";
}
template <typename T>
std::string text(T value) {
  return std::to_string(value);
}

template <typename... ARGUMENTS>
void call(const char* name, const ARGUMENTS&... arguments) {
  std::string all;
  ((all += (all.empty() ? "" : ",") + text(arguments)), ...);
  fake_platform().call(std::string(name) + "(" + all + ")");
}

} // namespace

std::shared_ptr<Job_Mutex> Job_Mutex::get(const std::string& name) {
  call("mutex", name);
  return std::make_shared<Fake_Mutex>();
}

OBS_SK_Decryptor::OBS_SK_Decryptor(const std::string& cipher_text) : plain_("plain " + cipher_text) {}

bool get_pool_info(const std::string& pool_uuid, const std::string& device_uuid, Pool_Info& info, bool refresh,
                   int timeout, const void* credentials, bool local, const void* session, const void* channel,
                   bool force) {
  call("get_pool_info", pool_uuid, device_uuid, refresh, timeout, credentials != nullptr, local, session != nullptr,
       channel != nullptr, force);
  info = fake_platform().pool_info;
  return fake_platform().pool;
}

bool get_url_by_pool_uuid(const std::string& pool_uuid, const void*, std::string& url, bool refresh, const void*) {
  call("get_url_by_pool_uuid", pool_uuid, refresh);
  url = fake_platform().pool_url;
  return fake_platform().pool_url_found;
}

void set_options_by_host(Client_IO_Base::Options& options) {
  options.access_key = "key of the host";
}

namespace file_backup {

bool is_merging(const std::string& location, const std::string& pool_uuid, const std::string& minor_resource_id) {
  call("is_merging", location, pool_uuid, minor_resource_id);
  return fake_platform().merging-- > 0;
}

bool get_last_instance_info(const std::string& minor_resource_id, const std::string& pool_uuid,
                            json_spirit::Object& record, int max_seconds_retry) {
  call("get_last_instance_info", minor_resource_id, pool_uuid, max_seconds_retry);
  record = fake_platform().last_record;
  return fake_platform().last_instance;
}

bool get_entries_from_backupd(const std::string& minor_resource_id, std::vector<std::string>& entries,
                              std::vector<std::string>& exclusions, std::vector<std::string>& inclusions,
                              std::string& minor_resource_name) {
  call("get_entries_from_backupd", minor_resource_id);
  entries = fake_platform().entries;
  exclusions = fake_platform().exclusions;
  inclusions = fake_platform().inclusions;
  if (!fake_platform().minor_resource_name.empty())
    minor_resource_name = fake_platform().minor_resource_name;
  return fake_platform().entries_found;
}

bool make_filter(const std::vector<std::string>& exclusions, const std::vector<std::string>& inclusions,
                 std::unique_ptr<MTF::IFilter>& filter) {
  call("make_filter");
  fake_platform().filter_exclusions = exclusions;
  fake_platform().filter_inclusions = inclusions;
  struct Everything : MTF::IFilter {
    bool is_included(const char*, bool) const override { return true; }
  };
  filter.reset();
  if (fake_platform().filter)
    filter.reset(new Everything);
  fake_platform().made_filter = filter.get();
  return fake_platform().filter;
}

int build_file_catalog(const File_Metadata& metadata, File_Backup_Set& set) {
  call("build_file_catalog");
  set.metadata = metadata;
  set.uuid = metadata.uuid;
  fake_platform().metadata = metadata;
  return fake_platform().catalog;
}

bool get_incarnation(const std::string& pool_uuid, const std::string& minor_resource_id, ACE_UINT32 seq,
                     std::string& incarnation, unsigned& channels, std::string& uri_prefix, int max_seconds_retry) {
  call("get_incarnation", pool_uuid, minor_resource_id, seq, max_seconds_retry);
  incarnation = fake_platform().incarnation;
  channels = fake_platform().channels;
  uri_prefix = fake_platform().uri_prefix;
  return fake_platform().incarnation_found;
}

void load_dr_test_context(const std::string& definition_id, File_DR_Test_Context& context) {
  call("load_dr_test_context", definition_id);
  context = fake_platform().dr_context;
}

bool get_dr_test_seqs(const std::string& minor_resource_id, File_DR_Test_Context&, int max_seconds_retry,
                      const std::string* pool_uuid) {
  call("get_dr_test_seqs", minor_resource_id, max_seconds_retry, pool_uuid ? *pool_uuid : std::string("none"));
  return fake_platform().dr_sets;
}

void save_dr_test_context(const std::string& definition_id, const File_DR_Test_Context& context) {
  call("save_dr_test_context", definition_id);
  fake_platform().saved_context = context;
}

} // namespace file_backup

Catalog_Operator::Catalog_Operator(int timeout, int retries) {
  call("Catalog_Operator", timeout, retries);
}

bool Catalog_Operator::commit(const file_backup::Backup_Set& set, bool online) {
  call("commit", set.uuid, online);
  fake_platform().set_incarnation = set.incarnation;
  fake_platform().set_bases = set.bases;
  return fake_platform().commit;
}

struct MTF_Backup::Impl {
  MTF::Event_Handler_var handler;
};

MTF_Backup::MTF_Backup(MTF::Event_Handler_var event_handler, MTF::Metadata& metadata,
                       std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl{event_handler}) {
  fake_platform().engine_metadata = dynamic_cast<file_backup::File_Metadata&>(metadata);
  call("engine.make", log != nullptr);
}
MTF_Backup::~MTF_Backup() = default;
void MTF_Backup::add_source(const std::string& path) {
  call("engine.add_source", path);
}
void MTF_Backup::action_handler(Action_Handler_var handler) {
  fake_platform().action_handler = handler;
  call("engine.action_handler", !handler.null());
}
void MTF_Backup::callback_factory(MTF::IBackup_Callback_Factory_var factory) {
  call("engine.callback_factory", !factory.null());
  fake_platform().backup_factory = factory;
}
void MTF_Backup::filter(const MTF::IFilter* filter) {
  fake_platform().engine_filter = filter;
  call("engine.filter", filter != nullptr);
}
void MTF_Backup::pool_uuid(const std::string& uuid) {
  call("engine.pool_uuid", uuid);
}
void MTF_Backup::device_uuid(const std::string& uuid) {
  call("engine.device_uuid", uuid);
}
void MTF_Backup::host_uuid(const std::string& uuid) {
  call("engine.host_uuid", uuid);
}
void MTF_Backup::minor_resource_id(const std::string& id) {
  call("engine.minor_resource_id", id);
}
void MTF_Backup::uuid(const std::string& uuid) {
  call("engine.uuid", uuid);
}
void MTF_Backup::seq(unsigned seq) {
  call("engine.seq", seq);
}
void MTF_Backup::channel_num(unsigned channels) {
  call("engine.channel_num", channels);
}
void MTF_Backup::compression(MTF_Compression method) {
  call("engine.compression", static_cast<int>(method));
}
void MTF_Backup::compression_level(int level) {
  call("engine.compression_level", level);
}
Client_IO_Base::Options& MTF_Backup::extra_client_io_opts() {
  call("engine.extra_client_io_opts");
  return fake_platform().io_options;
}
void MTF_Backup::uri_prefix(const std::string& prefix) {
  call("engine.uri_prefix", prefix);
}
void MTF_Backup::base_seq(unsigned seq) {
  call("engine.base_seq", seq);
}
void MTF_Backup::cache_path(const std::string& path) {
  call("engine.cache_path", path);
}
void MTF_Backup::scan_fs_threads(unsigned threads) {
  call("engine.scan_fs_threads", threads);
}
void MTF_Backup::incremental(bool value) {
  call("engine.incremental", value);
}
bool MTF_Backup::backup(const std::string& target) {
  call("engine.backup", target);
  impl_->handler->add_skipped_files(fake_platform().skipped_files);
  if (fake_platform().on_run)
    fake_platform().on_run();
  return fake_platform().engine;
}
MTF::Error_Code MTF_Backup::err_code() const {
  return fake_platform().err_code;
}
unsigned long long MTF_Backup::size() const {
  return fake_platform().size;
}
unsigned long long MTF_Backup::set_size() const {
  return fake_platform().set_size;
}
unsigned long long MTF_Backup::set_storage_size() const {
  return fake_platform().set_storage_size;
}

struct MTF_Restore::Impl {
  MTF::Event_Handler_var handler;
};

MTF_Restore::MTF_Restore(MTF::Event_Handler_var event_handler, std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl{event_handler}) {
  call("engine.make", log != nullptr);
}
MTF_Restore::~MTF_Restore() = default;
void MTF_Restore::path_converter(MTF_FS::IPath_Converter_var converter) {
  call("engine.path_converter", !converter.null());
  fake_platform().converter = converter;
}
void MTF_Restore::action_handler(Action_Handler_var handler) {
  fake_platform().action_handler = handler;
  call("engine.action_handler", !handler.null());
}
void MTF_Restore::callback_factory(MTF::IRestore_Callback_Factory_var factory) {
  call("engine.callback_factory", !factory.null());
  fake_platform().restore_factory = factory;
}
void MTF_Restore::target_location(const std::string& location) {
  call("engine.target_location", location);
}
void MTF_Restore::backup_uri_prefix(const std::string& prefix) {
  call("engine.backup_uri_prefix", prefix);
}
void MTF_Restore::pool_uuid(const std::string& uuid) {
  call("engine.pool_uuid", uuid);
}
void MTF_Restore::definition_uuid(const std::string& uuid) {
  call("engine.definition_uuid", uuid);
}
void MTF_Restore::backup_host_uuid(const std::string& uuid) {
  call("engine.backup_host_uuid", uuid);
}
void MTF_Restore::backup_minor_resource_id(const std::string& id) {
  call("engine.backup_minor_resource_id", id);
}
void MTF_Restore::seq(ACE_INT64 seq) {
  call("engine.seq", seq);
}
void MTF_Restore::restore_select(const std::list<json_spirit::Value>& entries) {
  call("engine.restore_select", json_spirit::write(json_spirit::Array(entries.begin(), entries.end())));
}
Client_IO_Base::Options& MTF_Restore::extra_client_io_opts() {
  call("engine.extra_client_io_opts");
  return fake_platform().io_options;
}
void MTF_Restore::incarnation(const std::string& incarnation) {
  call("engine.incarnation", incarnation);
}
void MTF_Restore::channel_num(unsigned channels) {
  call("engine.channel_num", channels);
}
void MTF_Restore::concurrent(unsigned channels) {
  call("engine.concurrent", channels);
}
void MTF_Restore::standalone(bool value) {
  call("engine.standalone", value);
}
void MTF_Restore::cache_path(const std::string& path) {
  call("engine.cache_path", path);
}
bool MTF_Restore::restore(const std::string& target) {
  call("engine.restore", target);
  impl_->handler->add_skipped_files(fake_platform().skipped_files);
  if (fake_platform().on_run)
    fake_platform().on_run();
  return fake_platform().engine;
}
MTF::Error_Code MTF_Restore::err_code() const {
  return fake_platform().err_code;
}
unsigned long long MTF_Restore::size() const {
  return fake_platform().size;
}
unsigned long long MTF_Restore::set_size() const {
  return fake_platform().set_size;
}
