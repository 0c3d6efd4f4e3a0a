#include "sdk/rpc/json_rpc.h"

#include "sdk/base/check.h"

#include <exception>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

namespace {

constexpr int METHOD_NOT_FOUND = -32601;
constexpr int INTERNAL_ERROR = -32603;

const json_spirit::Value& id_of(const JSON_RPC_Object_var& object) {
  static const json_spirit::Value none;
  if (!object.null() && object->type() == JSON_RPC_Object::TYPE_REQUEST)
    return static_cast<const JSON_RPC_Request&>(*object).id();
  return none;
}

int fail(const JSON_RPC_Channel_var& channel, const JSON_RPC_Object_var& object, const std::string& reason) {
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to serve a JSON-RPC request: %C.\n"), reason.c_str()));
  if (channel)
    channel->send_error(INTERNAL_ERROR, id_of(object), reason, json_spirit::Value());
  return -1;
}

} // namespace

JSON_RPC_Handler::~JSON_RPC_Handler() = default;
JSON_RPC_Thread_Handler::~JSON_RPC_Thread_Handler() = default;

int JSON_RPC_Thread_Handler::handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) {
  int result = -1;
  std::string failure;
  try {
    std::thread worker([&] {
      try {
        result = handle_object_i(channel, object);
      } catch (const std::exception& e) {
        failure = e.what();
      } catch (...) {
        failure = "unknown exception";
      }
    });
    worker.join();
  } catch (const std::system_error& e) {
    failure = e.what();
  }
  return failure.empty() ? result : fail(channel, object, failure);
}

struct In_Process_JSON_RPC_Channel::Impl {
  std::mutex mutex; ///< guards `routes`
  std::map<std::string, JSON_RPC_Handler*> routes;

  JSON_RPC_Handler* handler(const std::string& method) {
    const std::lock_guard<std::mutex> guard(mutex);
    const auto found = routes.find(method);
    return found == routes.end() ? nullptr : found->second;
  }
};

namespace {

/// The handler's end of one request: takes the first answer. A handler may hold it for longer than the request runs;
/// then nobody listens any more.
class Reply_Channel : public JSON_RPC_Channel {
public:
  explicit Reply_Channel(JSON_RPC_Channel& parent) : parent_(&parent) {}

  int send(JSON_RPC_Object_var object) override {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (parent_ == nullptr || object.null() || !reply_.null())
      return -1;
    if (object->type() != JSON_RPC_Object::TYPE_RESPONSE && object->type() != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
      return -1;
    reply_ = object;
    return 0;
  }

  int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) override {
    JSON_RPC_Channel* parent = nullptr;
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      parent = parent_;
    }
    return parent == nullptr ? -1 : parent->request(request, reply);
  }

  JSON_RPC_Object_var finish() {
    const std::lock_guard<std::mutex> guard(mutex_);
    parent_ = nullptr;
    return reply_;
  }

private:
  std::mutex mutex_; ///< guards what follows
  JSON_RPC_Channel* parent_;
  JSON_RPC_Object_var reply_;
};

} // namespace

In_Process_JSON_RPC_Channel::In_Process_JSON_RPC_Channel() : impl_(new Impl) {}
In_Process_JSON_RPC_Channel::~In_Process_JSON_RPC_Channel() = default;

void In_Process_JSON_RPC_Channel::route(const std::string& method, JSON_RPC_Handler* handler) {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  if (handler == nullptr)
    impl_->routes.erase(method);
  else
    impl_->routes[method] = handler;
}

// Answers reach the caller through the channel that its handler was given; there is nobody else to send to.
int In_Process_JSON_RPC_Channel::send(JSON_RPC_Object_var) {
  return -1;
}

int In_Process_JSON_RPC_Channel::request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
  JSON_RPC_Handler* handler = impl_->handler(request.method());
  if (handler == nullptr) {
    reply = count_references(std::make_unique<JSON_RPC_Error_Response>(
        request.id(), METHOD_NOT_FOUND, "Method '" + request.method() + "' not found", json_spirit::Value()));
    return 0;
  }

  const std::shared_ptr<Reply_Channel> channel = std::make_shared<Reply_Channel>(*this);
  const JSON_RPC_Object_var object = count_references(std::make_unique<JSON_RPC_Request>(request));
  try {
    handler->handle_object(channel, object);
  } catch (const std::exception& e) {
    fail(channel, object, e.what());
  } catch (...) {
    fail(channel, object, "unknown exception");
  }
  const JSON_RPC_Object_var answer = channel->finish();
  if (answer.null())
    return -1;
  reply = answer;
  return 0;
}
