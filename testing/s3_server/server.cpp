#include "testing/s3_server/server_impl.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace s3_testing {
namespace {

std::uint64_t random_seed() {
  std::random_device device;
  return (std::uint64_t{device()} << 32 | device()) | 1;
}

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string("S3 test server: ") + what + ": " + std::strerror(errno));
}

std::string write_temporary(const std::string& text) {
  const char* folder = std::getenv("TMPDIR");
  std::string name = std::string(folder && *folder ? folder : "/tmp") + "/s3-testing-ca-XXXXXX";
  const int fd = ::mkstemp(name.data());
  if (fd < 0)
    fail("creating the CA file");
  const bool whole = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!whole)
    fail("writing the CA file");
  return name;
}

} // namespace

S3_Server::Impl::Impl(S3_Server_Options options)
    : faults(options.seed = options.seed ? options.seed : random_seed()), seed(options.seed) {
  auto first = std::make_shared<S3_Server_Settings>();
  first->region = options.region;
  first->secrets[options.access_key] = options.secret_key;
  first->clock = [] { return static_cast<std::int64_t>(std::time(nullptr)); };
  settings_now = std::move(first);
  if (options.tls) {
    std::string client_pem;
    tls = make_server_context(options.tls_names, options.tls_valid_seconds, options.tls_client_certificate, ca_pem,
                              client_pem);
    ca_file = write_temporary(ca_pem);
    client_certificate_file = write_temporary(client_pem);
  }
  if (::pipe2(wake_, O_CLOEXEC) != 0)
    fail("pipe");
  listen_on(0);
}

S3_Server::Impl::~Impl() {
  stop_listening();
  {
    std::lock_guard guard(lock);
    stopping = true;
    changed.notify_all();
  }
  drop_connections();
  for (Peer& peer : peers_)
    peer.thread.join();
  ::close(wake_[0]);
  ::close(wake_[1]);
  for (const std::string* file : {&ca_file, &client_certificate_file})
    if (!file->empty())
      ::unlink(file->c_str());
}

void S3_Server::Impl::listen_on(std::uint16_t wanted) {
  if (listener_ >= 0)
    return;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    fail("socket");
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(wanted);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 1024) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    fail("listening on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  listener_ = fd;
  acceptor_ = std::thread([this, fd] { accept_loop(fd); });
}

void S3_Server::Impl::stop_listening() {
  if (listener_ < 0)
    return;
  const char byte = 0;
  while (::write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
  }
  acceptor_.join();
  ::close(listener_);
  listener_ = -1;
}

void S3_Server::Impl::accept_loop(int listener) {
  for (;;) {
    pollfd wait[2] = {{listener, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (::poll(wait, 2, -1) < 0)
      continue;
    if (wait[1].revents) {
      char byte;
      if (::read(wake_[0], &byte, 1) == 1)
        return;
    }
    if (!wait[0].revents)
      continue;
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      continue;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto connection = std::make_shared<Connection>(fd);
    std::uint64_t number = 0;
    {
      std::lock_guard guard(lock);
      number = ++opened;
    }
    if (faults.strike_connection()) {
      connection->close_with_reset();
      continue;
    }
    std::lock_guard guard(peers_lock_);
    for (auto at = peers_.begin(); at != peers_.end();) {
      if (at->connection) {
        ++at;
        continue;
      }
      at->thread.join();
      at = peers_.erase(at);
    }
    Peer& peer = peers_.emplace_back();
    peer.connection = std::move(connection);
    try {
      peer.thread = std::thread([this, &peer, number] {
        // SSL_write to a peer that has gone away raises it.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        Connection* mine = nullptr;
        {
          std::lock_guard ready(peers_lock_);
          mine = peer.connection.get();
        }
        try {
          serve_peer(*mine, number);
        } catch (const std::exception& error) {
          std::fprintf(stderr, "S3 test server: a connection ends: %s\n", error.what());
        }
        std::lock_guard done(peers_lock_);
        peer.connection.reset();
      });
    } catch (const std::exception& error) {
      std::fprintf(stderr, "S3 test server: no thread for a connection: %s\n", error.what());
      peers_.pop_back();
    }
  }
}

void S3_Server::Impl::drop_connections() {
  std::lock_guard guard(peers_lock_);
  for (Peer& peer : peers_)
    if (peer.connection)
      peer.connection->shut_down();
}

std::shared_ptr<const S3_Server_Settings> S3_Server::Impl::settings() const {
  std::lock_guard guard(settings_lock);
  return settings_now;
}

S3_Server::S3_Server(S3_Server_Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
S3_Server::~S3_Server() = default;

std::uint16_t S3_Server::port() const {
  return impl_->port;
}
std::string S3_Server::endpoint() const {
  return "127.0.0.1:" + std::to_string(impl_->port);
}
std::string S3_Server::url() const {
  return (impl_->tls ? "https://" : "http://") + endpoint();
}
const std::string& S3_Server::ca_pem() const {
  return impl_->ca_pem;
}
const std::string& S3_Server::ca_file() const {
  return impl_->ca_file;
}
const std::string& S3_Server::client_certificate_file() const {
  return impl_->client_certificate_file;
}
std::uint64_t S3_Server::seed() const {
  return impl_->seed;
}

void S3_Server::configure(const std::function<void(S3_Server_Settings&)>& change) {
  std::lock_guard guard(impl_->settings_lock);
  auto next = std::make_shared<S3_Server_Settings>(*impl_->settings_now);
  change(*next);
  impl_->settings_now = std::move(next);
}

void S3_Server::set_credentials(const std::string& access_key, const std::string& secret_key) {
  configure([&](S3_Server_Settings& settings) { settings.secrets = {{access_key, secret_key}}; });
}

void S3_Server::add_credentials(const std::string& access_key, const std::string& secret_key) {
  configure([&](S3_Server_Settings& settings) { settings.secrets[access_key] = secret_key; });
}

void S3_Server::add_fault(Fault fault) {
  impl_->faults.add(std::move(fault));
}
void S3_Server::clear_faults() {
  impl_->faults.clear();
}
std::uint64_t S3_Server::faults_struck() const {
  return impl_->faults.struck();
}

std::uint64_t S3_Server::objects_changed() const {
  return impl_->objects_changed;
}

void S3_Server::release_stalls() {
  std::lock_guard guard(impl_->lock);
  ++impl_->stall_release;
  impl_->changed.notify_all();
}

void S3_Server::stop_listening() {
  impl_->stop_listening();
}
void S3_Server::listen_again() {
  impl_->listen_on(impl_->port);
}
void S3_Server::drop_connections() {
  impl_->drop_connections();
}

bool S3_Server::create_bucket(const std::string& bucket) {
  return impl_->store.create_bucket(bucket, impl_->settings()->clock());
}
bool S3_Server::has_bucket(const std::string& bucket) const {
  return impl_->store.has_bucket(bucket);
}

bool S3_Server::put(const std::string& bucket, const std::string& key, std::string bytes) {
  return put(bucket, key, make_object(std::move(bytes)));
}

bool S3_Server::put(const std::string& bucket, const std::string& key, Object object) {
  if (object.mtime == 0)
    object.mtime = impl_->settings()->clock();
  if (object.etag.empty())
    object.etag =
        object.synthetic ? make_synthetic_object(object.size, object.seed).etag : make_object(object.bytes()).etag;
  return impl_->store.put(bucket, key, std::move(object));
}

bool S3_Server::put_synthetic(const std::string& bucket, const std::string& key, std::uint64_t size,
                              std::uint64_t seed) {
  return put(bucket, key, make_synthetic_object(size, seed));
}

bool S3_Server::add_synthetic(const std::string& bucket, const std::string& prefix, std::uint64_t count,
                              std::uint64_t size, std::uint64_t seed) {
  Synthetic_Keys keys;
  keys.count = count;
  keys.seed = seed;
  keys.size = [size](std::uint64_t) { return size; };
  keys.key = [prefix](std::uint64_t index) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%010llu", static_cast<unsigned long long>(index));
    return prefix + digits;
  };
  return add_synthetic(bucket, std::move(keys));
}

bool S3_Server::add_synthetic(const std::string& bucket, Synthetic_Keys keys) {
  if (keys.mtime == 0)
    keys.mtime = impl_->settings()->clock();
  return impl_->store.add_synthetic(bucket, std::move(keys));
}

std::optional<std::string> S3_Server::get(const std::string& bucket, const std::string& key) const {
  const Object_Ptr found = object(bucket, key);
  return found ? std::optional<std::string>(found->bytes()) : std::nullopt;
}

Object_Ptr S3_Server::object(const std::string& bucket, const std::string& key) const {
  return impl_->store.find(bucket, key);
}

bool S3_Server::remove(const std::string& bucket, const std::string& key) {
  return impl_->store.remove(bucket, key);
}

std::vector<std::string> S3_Server::keys(const std::string& bucket) const {
  std::vector<std::string> out;
  impl_->store.walk(bucket, "", [&](const std::string& key, std::string&, const Store::Make_Object&) {
    out.push_back(key);
    return true;
  });
  return out;
}

std::uint64_t S3_Server::object_count(const std::string& bucket) const {
  return impl_->store.object_count(bucket);
}

std::size_t S3_Server::open_uploads() const {
  std::lock_guard guard(impl_->uploads.lock);
  return impl_->uploads.open.size();
}

std::uint64_t S3_Server::count(const std::string& operation) const {
  std::lock_guard guard(impl_->lock);
  if (operation.empty())
    return impl_->total;
  const auto at = impl_->counts.find(operation);
  return at == impl_->counts.end() ? 0 : at->second;
}

std::map<std::string, std::uint64_t> S3_Server::counts() const {
  std::lock_guard guard(impl_->lock);
  return impl_->counts;
}

bool S3_Server::wait_for_count(const std::string& operation, std::uint64_t at_least, double seconds) const {
  std::unique_lock guard(impl_->lock);
  return impl_->changed.wait_for(guard, std::chrono::duration<double>(seconds), [&] {
    if (operation.empty())
      return impl_->total >= at_least;
    const auto at = impl_->counts.find(operation);
    return (at == impl_->counts.end() ? 0 : at->second) >= at_least;
  });
}

bool S3_Server::wait_for_stalls(std::size_t at_least, double seconds) const {
  std::unique_lock guard(impl_->lock);
  return impl_->changed.wait_for(guard, std::chrono::duration<double>(seconds),
                                 [&] { return impl_->stalled >= at_least; });
}

std::uint64_t S3_Server::max_concurrent() const {
  std::lock_guard guard(impl_->lock);
  return impl_->max_in_work;
}

std::uint64_t S3_Server::connections_opened() const {
  std::lock_guard guard(impl_->lock);
  return impl_->opened;
}

std::uint64_t S3_Server::body_bytes_sent() const {
  return impl_->body_bytes;
}

void S3_Server::reset_counts() {
  std::lock_guard guard(impl_->lock);
  impl_->counts.clear();
  impl_->total = impl_->opened = 0;
  impl_->max_in_work = impl_->in_work;
  impl_->log.clear();
  impl_->body_bytes = 0;
}

void S3_Server::keep_log(bool keep) {
  std::lock_guard guard(impl_->lock);
  impl_->logging = keep;
}

std::vector<Request_Info> S3_Server::log() const {
  std::lock_guard guard(impl_->lock);
  return impl_->log;
}

} // namespace s3_testing
