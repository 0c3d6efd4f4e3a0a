#include "sdk/rpc/json_rpc.h"

#include <atomic>
#include <mutex>
#include <new>

JSON_RPC_Object::~JSON_RPC_Object() = default;

JSON_RPC_Request::JSON_RPC_Request(std::string method, json_spirit::Value params, json_spirit::Value id)
    : method_(std::move(method)), params_(std::move(params)), id_(std::move(id)) {}
JSON_RPC_Request::~JSON_RPC_Request() = default;

JSON_RPC_Response::JSON_RPC_Response(const JSON_RPC_Request& request) : id_(request.id()) {}
JSON_RPC_Response::JSON_RPC_Response(json_spirit::Value id, json_spirit::Value result)
    : id_(std::move(id)), result_(std::move(result)) {}
JSON_RPC_Response::~JSON_RPC_Response() = default;

JSON_RPC_Error_Response::JSON_RPC_Error_Response(json_spirit::Value id, int code, std::string message,
                                                 json_spirit::Value data)
    : id_(std::move(id)), code_(code), message_(std::move(message)), data_(std::move(data)) {}
JSON_RPC_Error_Response::~JSON_RPC_Error_Response() = default;

JSON_RPC_Channel::~JSON_RPC_Channel() = default;

int JSON_RPC_Channel::send_error(int code, const json_spirit::Value& id, const std::string& message,
                                 const json_spirit::Value& data) {
  return send(count_references(std::make_unique<JSON_RPC_Error_Response>(id, code, message, data)));
}

namespace {

struct Global_Channel {
  std::mutex mutex; ///< guards `channel`
  JSON_RPC_Channel_var channel;
};

Global_Channel& global_channel() {
  static Global_Channel* instance = new Global_Channel;
  return *instance;
}

} // namespace

JSON_RPC_Channel_var Global_JSON_RPC_Channel::instance() {
  Global_Channel& global = global_channel();
  const std::lock_guard<std::mutex> guard(global.mutex);
  return global.channel;
}

void Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var channel) {
  Global_Channel& global = global_channel();
  {
    const std::lock_guard<std::mutex> guard(global.mutex);
    global.channel.swap(channel);
  }
  // The old channel goes here, outside the lock: its end may be long.
}

void JSON_RPC_Session::make_rpc_request(const std::string& method, const json_spirit::Object& params,
                                        JSON_RPC_Request& request) {
  static std::atomic<ACE_UINT64> last_id{0};
  request = JSON_RPC_Request(method, params, json_spirit::Value(static_cast<unsigned long long>(++last_id)));
}

int JSON_RPC_Session::request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
  const JSON_RPC_Channel_var channel = channel_.lock();
  if (!channel)
    return -1;
  return channel->request(request, reply) == 0 && !reply.null() ? 0 : -1;
}
