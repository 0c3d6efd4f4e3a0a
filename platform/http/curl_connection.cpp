#include "platform/http/curl_connection.h"

#include "platform/http/cancellation.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

#include <sys/socket.h>

namespace {

/// Received bytes held that nobody has asked for yet; the peer is made to wait above it.
constexpr size_t BUFFER_LIMIT = 256 * 1024;
/// An answer's head; the services' own are below 8 KiB.
constexpr size_t HEAD_LIMIT = 64 * 1024;
/// How often a waiting request looks whether its job is being cancelled.
constexpr std::chrono::milliseconds CANCEL_CHECK(250);

/// The library reads up to so many buffers at one call (7.88).
constexpr long READS = 100;

/// At least as long as the head of a request for which the library adds the request line, the host, the name to go by
/// and the body's length.
unsigned long long longest_head(const HTTP_Request& request, const std::string& user_agent) {
  size_t size = request.method.size() + 2 * request.url.size() + user_agent.size() + 128;
  for (const auto& [name, value] : request.headers)
    size += name.size() + value.size() + 4;
  return size;
}

/// What the system holds of a connection whose bytes are limited has been moved already, whatever is counted here.
int limit_socket(void* rate, curl_socket_t socket, curlsocktype) {
  const int size = static_cast<int>(std::max(static_cast<Rate_Limit*>(rate)->piece(), 4096ul));
  for (const int direction : {SO_RCVBUF, SO_SNDBUF})
    setsockopt(socket, SOL_SOCKET, direction, &size, sizeof size);
  return CURL_SOCKOPT_OK;
}

std::chrono::steady_clock::duration to_duration(const ACE_Time_Value& time) {
  return std::chrono::seconds(time.sec()) + std::chrono::microseconds(time.usec());
}

bool append_header(Curl_List_ptr& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (!longer)
    return false;
  list.release();
  list.reset(longer);
  return true;
}

} // namespace

Curl_Connection::Curl_Connection(std::shared_ptr<HTTP_Channel_Pool> pool,
                                 std::shared_ptr<std::atomic<unsigned long long>> bytes_read)
    : pool_(std::move(pool)), bytes_read_(std::move(bytes_read)), idle_timeout_(pool_->settings().idle_timeout),
      watch_(pool_->settings().min_rate, pool_->settings().idle_timeout) {}

Curl_Connection::~Curl_Connection() {
  detach();
}

void Curl_Connection::finish_despite_cancel(unsigned seconds) {
  cancellable_ = false;
  idle_timeout_ = std::min(idle_timeout_, seconds);
}

void Curl_Connection::share(std::shared_ptr<Rate_Limit> rate) {
  rate_ = rate && rate->on() ? std::move(rate) : nullptr;
}

bool Curl_Connection::cancelled() const {
  return (stop_ && *stop_) || (cancellable_ && current_job_cancelled());
}

bool Curl_Connection::prepare(const HTTP_Request& request) {
  CURL* easy = channel_->easy.get();
  bool enough = true;
  // The defaults that the library would add of itself; a service may refuse or sign over them.
  enough = append_header(header_list_, "Accept:") && append_header(header_list_, "Expect:");
  bool typed = false;
  for (const auto& [name, value] : request.headers) {
    typed = typed || name == "content-type";
    enough = enough && append_header(header_list_, value.empty() ? name + ";" : name + ": " + value);
  }
  if (request.has_body && !typed)
    enough = enough && append_header(header_list_, "Content-Type:");
  if (!enough)
    return false;
  channel_->error[0] = 0;
  curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
  if (request.has_body) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.empty() ? "" : request.body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  } else if (request.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, header_list_.get());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Curl_Connection::on_header);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Curl_Connection::on_body);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  if (rate_) {
    const long piece = static_cast<long>(rate_->piece());
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, std::clamp(piece / READS, 1024l, 65536l));
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, std::clamp(piece, 16384l, 65536l));
    curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, &limit_socket);
    curl_easy_setopt(easy, CURLOPT_SOCKOPTDATA, rate_.get());
  }
  return curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str()) == CURLE_OK &&
         curl_multi_add_handle(channel_->multi.get(), easy) == CURLM_OK;
}

bool Curl_Connection::send(const HTTP_Request& request) {
  state_ = FAILED;
  if (cancelled()) {
    failure_.cancelled = true;
    return false;
  }
  channel_ = pool_->acquire();
  if (!channel_ || !prepare(request)) {
    fail(CURLE_OUT_OF_MEMORY, "no connection handle");
    return false;
  }
  uploading_ = request.has_body;
  to_send_ = request.body.size();
  longest_head_ = longest_head(request, pool_->settings().user_agent);
  may_dawdle_ = request.method != "GET"; // A service that puts parts together sends blanks meanwhile.
  // Connecting has a time-out of its own, during which no byte moves; it counts where every wait is not bounded anyway.
  const unsigned idle = cancellable_ ? std::max(idle_timeout_, pool_->settings().connect_timeout + 1) : idle_timeout_;
  drive(std::chrono::seconds(idle), [this] { return head_complete_; });
  return head_complete_;
}

void Curl_Connection::accept() {
  state_ = HEADERS_READ;
}

std::string Curl_Connection::refuse(size_t limit) {
  std::string text;
  char piece[4096];
  size_t got;
  while (text.size() < limit && (got = read(piece, std::min(sizeof piece, limit - text.size()))) > 0)
    text.append(piece, got);
  detach();
  state_ = FAILED;
  return text;
}

size_t Curl_Connection::read(char* buffer, size_t size) {
  return receive(buffer, size, std::chrono::seconds(idle_timeout_));
}

size_t Curl_Connection::recv(void* buffer, size_t size, const ACE_Time_Value* timeout) {
  if (!buffer)
    return RECV_FAILED;
  if (state_ == BODY_READ || state_ == CLOSED)
    return 0;
  if (state_ != HEADERS_READ && state_ != READING_BODY)
    return RECV_FAILED;
  if (size == 0)
    return 0;
  const size_t got =
      receive(static_cast<char*>(buffer), size, timeout ? to_duration(*timeout) : std::chrono::seconds(idle_timeout_));
  if (bytes_read_)
    bytes_read_->fetch_add(got, std::memory_order_relaxed);
  if (channel_ || buffered() > 0)
    state_ = READING_BODY;
  else
    state_ = failure_.code || failure_.cancelled ? CLOSED : BODY_READ;
  return got;
}

void Curl_Connection::close() {
  detach();
  buffer_.clear();
  buffer_at_ = 0;
  if (state_ != FAILED)
    state_ = CLOSED;
}

size_t Curl_Connection::receive(char* buffer, size_t size, Duration idle) {
  size_t got = take_buffered(buffer, size);
  while (got < size && channel_) {
    direct_ = buffer + got;
    direct_left_ = size - got;
    if (paused_)
      unpause();
    if (channel_)
      drive(idle, [this] { return direct_left_ == 0 || paused_; });
    got = size - direct_left_;
    direct_ = nullptr;
    direct_left_ = 0;
  }
  return got;
}

size_t Curl_Connection::take_buffered(char* buffer, size_t size) {
  const size_t taken = std::min(size, buffered());
  if (taken > 0)
    std::memcpy(buffer, buffer_.data() + buffer_at_, taken);
  buffer_at_ += taken;
  if (buffer_at_ == buffer_.size()) {
    buffer_.clear();
    buffer_at_ = 0;
  }
  return taken;
}

/// Lets bytes move until `until` holds, the transfer ends, or nothing has moved for `idle`.
template <typename Until>
void Curl_Connection::drive(Duration idle, Until until) {
  auto last = std::chrono::steady_clock::now(), looked = last;
  unsigned long long seen = moved();
  for (;;) {
    if (rate_) {
      const auto from = std::chrono::steady_clock::now();
      if (!wait_for_turn())
        return;
      // What is held here cannot be told from a peer that sends nothing.
      const auto held = std::chrono::steady_clock::now() - from;
      last += held;
      turn_left_ = rate_->piece();
      looked += held;
    }
    perform();
    count_sent();
    if (rate_)
      rate_->end(moved() - std::exchange(metered_, moved()));
    const auto now = std::chrono::steady_clock::now();
    waited_ += now - looked;
    looked = now;
    if (!channel_ || until())
      return;
    if (cancelled()) {
      failure_.cancelled = true;
      fail(CURLE_ABORTED_BY_CALLBACK, "cancelled");
      return;
    }
    if (moved() != seen) {
      seen = moved();
      last = now;
    } else if (now - last >= idle) {
      fail(CURLE_OPERATION_TIMEDOUT, "no byte came for too long");
      return;
    }
    if (too_slow()) {
      fail(CURLE_OPERATION_TIMEDOUT,
           "fewer than " + std::to_string(pool_->settings().min_rate) + " bytes a second came for too long");
      return;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(idle - (now - last)) + std::chrono::milliseconds(1);
    curl_multi_poll(channel_->multi.get(), nullptr, 0, static_cast<int>(std::min(left, CANCEL_CHECK).count()), nullptr);
  }
}

Curl_Connection::Phase Curl_Connection::phase() const {
  if (head_complete_)
    return BODY;
  if (progress_ > 0)
    return HEAD;
  return body_sent_ < to_send_ ? SENDING : WAITING;
}

/// Silence is for the idle time-out.
bool Curl_Connection::too_slow() {
  const double waited = std::chrono::duration<double>(std::exchange(waited_, Duration())).count();
  const Phase now = phase();
  if (now != phase_ || now == WAITING || (now == BODY && may_dawdle_)) {
    phase_ = now;
    watch_.restart(moved());
    return false;
  }
  return watch_.too_slow(waited, moved());
}

/// False, the transfer having ended, when the job is cancelled meanwhile.
bool Curl_Connection::wait_for_turn() {
  constexpr double LOOK = std::chrono::duration<double>(CANCEL_CHECK).count();
  for (double seconds = rate_->begin(); seconds > 0; seconds = rate_->begin()) {
    rate_->wait(std::min(seconds, LOOK));
    if (cancelled()) {
      failure_.cancelled = true;
      fail(CURLE_ABORTED_BY_CALLBACK, "cancelled");
      return false;
    }
  }
  return true;
}

void Curl_Connection::count_sent() {
  curl_off_t body = 0;
  long head = 0;
  if (!channel_)
    return;
  curl_easy_getinfo(channel_->easy.get(), CURLINFO_REQUEST_SIZE, &head);
  if (uploading_)
    curl_easy_getinfo(channel_->easy.get(), CURLINFO_SIZE_UPLOAD_T, &body);
  body_sent_ = static_cast<unsigned long long>(body);
  sent_ = static_cast<unsigned long long>(head);
  // A small body leaves in one piece with the head, and the library counts it as a part of that as well (7.88).
  if (uploading_)
    sent_ = std::min(sent_, longest_head_) + body_sent_;
}

void Curl_Connection::perform() {
  int running = 0;
  const CURLMcode result = curl_multi_perform(channel_->multi.get(), &running);
  if (result != CURLM_OK) {
    fail(CURLE_FAILED_INIT, curl_multi_strerror(result));
    return;
  }
  if (running > 0)
    return;
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(channel_->multi.get(), &left)) {
    if (message->msg != CURLMSG_DONE)
      continue;
    const CURLcode code = message->data.result;
    if (code == CURLE_OK && head_complete_)
      detach();
    else
      fail(code == CURLE_OK ? CURLE_GOT_NOTHING : code,
           channel_->error[0] ? channel_->error : curl_easy_strerror(code));
    return;
  }
}

void Curl_Connection::unpause() {
  paused_ = false;
  turn_left_ = std::max(turn_left_, 1ull); // what was held back comes at once
  if (curl_easy_pause(channel_->easy.get(), CURLPAUSE_CONT) != CURLE_OK && !paused_)
    fail(CURLE_RECV_ERROR, "cannot go on with a transfer that was held");
}

void Curl_Connection::fail(int code, const std::string& text) {
  failure_.code = code;
  failure_.text = text;
  if (channel_) {
    long os_errno = 0;
    curl_easy_getinfo(channel_->easy.get(), CURLINFO_OS_ERRNO, &os_errno);
    failure_.os_errno = static_cast<int>(os_errno);
  }
  detach();
}

/// Removing a transfer that has not ended closes its connection; one that has leaves it for the next request.
void Curl_Connection::detach() {
  if (!channel_)
    return;
  count_sent();
  CURL* easy = channel_->easy.get();
  curl_multi_remove_handle(channel_->multi.get(), easy);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
  curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, nullptr);
  header_list_.reset();
  pool_->release(std::move(channel_));
}

size_t Curl_Connection::on_header(char* data, size_t size, size_t count, void* self) {
  try {
    return static_cast<Curl_Connection*>(self)->header(std::string_view(data, size * count));
  } catch (...) {
    return 0;
  }
}

size_t Curl_Connection::on_body(char* data, size_t size, size_t count, void* self) {
  try {
    return static_cast<Curl_Connection*>(self)->body(data, size * count);
  } catch (...) {
    return 0;
  }
}

size_t Curl_Connection::header(std::string_view line) {
  const size_t size = line.size();
  progress_ += size;
  head_size_ += size;
  if (head_size_ > HEAD_LIMIT)
    return 0;
  // What follows the head are trailers of a chunked body.
  if (head_complete_)
    return size;
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n' || line.back() == ' '))
    line.remove_suffix(1);
  if (line.compare(0, 5, "HTTP/") == 0) {
    // An answer below 200 is followed by the real one.
    head_.headers.clear();
    long status = 0;
    curl_easy_getinfo(channel_->easy.get(), CURLINFO_RESPONSE_CODE, &status);
    head_.status = static_cast<int>(status);
  } else if (line.empty()) {
    head_complete_ = head_.status >= 200;
  } else {
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos) {
      std::string name(line.substr(0, colon));
      std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
      line.remove_prefix(colon + 1);
      while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
        line.remove_prefix(1);
      head_.headers.emplace_back(std::move(name), std::string(line));
    }
  }
  return size;
}

size_t Curl_Connection::body(const char* data, size_t size) {
  if (rate_ && turn_left_ == 0) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  // Whoever reads piece by piece comes back for more; what is held for them until then is copied twice.
  if (direct_left_ == 0 && (state_ == READING_BODY || buffered() >= BUFFER_LIMIT)) {
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  progress_ += size;
  turn_left_ -= std::min<unsigned long long>(turn_left_, size);
  const size_t straight = std::min(size, direct_left_);
  if (straight > 0) {
    std::memcpy(direct_, data, straight);
    direct_ += straight;
    direct_left_ -= straight;
  }
  buffer_.append(data + straight, size - straight);
  return size;
}
