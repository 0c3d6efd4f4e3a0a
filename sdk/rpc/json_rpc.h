#pragma once

#include "sdk/json/json_spirit.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <memory>
#include <string>

/// One message of JSON-RPC 2.0.
class JSON_RPC_Object {
public:
  enum Type { TYPE_NONE = 0, TYPE_REQUEST = 1, TYPE_NOTIFICATION = 2, TYPE_RESPONSE = 3, TYPE_RESPONSE_ERROR = 4 };
  virtual ~JSON_RPC_Object();
  virtual Type type() const = 0;
};
typedef ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> JSON_RPC_Object_var;

/// Takes a message over. Throws std::bad_alloc when memory is short; the message is then deleted.
inline JSON_RPC_Object_var count_references(std::unique_ptr<JSON_RPC_Object> message) {
  JSON_RPC_Object_var counted(message.get());
  message.release();
  return counted;
}

class JSON_RPC_Request : public JSON_RPC_Object {
public:
  JSON_RPC_Request() = default;
  JSON_RPC_Request(std::string method, json_spirit::Value params, json_spirit::Value id);
  ~JSON_RPC_Request() override;
  Type type() const override { return TYPE_REQUEST; }

  const std::string& method() const { return method_; }
  const json_spirit::Value& params() const { return params_; }
  const json_spirit::Value& id() const { return id_; }

private:
  std::string method_;
  json_spirit::Value params_;
  json_spirit::Value id_;
};

/// The answer to a request that succeeded.
class JSON_RPC_Response : public JSON_RPC_Object {
public:
  /// An answer to `request`, its result null.
  explicit JSON_RPC_Response(const JSON_RPC_Request& request);
  JSON_RPC_Response(json_spirit::Value id, json_spirit::Value result);
  ~JSON_RPC_Response() override;
  Type type() const override { return TYPE_RESPONSE; }

  json_spirit::Value& result() { return result_; }
  const json_spirit::Value& id() const { return id_; }

private:
  json_spirit::Value id_;
  json_spirit::Value result_;
};

class JSON_RPC_Error_Response : public JSON_RPC_Object {
public:
  JSON_RPC_Error_Response(json_spirit::Value id, int code, std::string message, json_spirit::Value data);
  ~JSON_RPC_Error_Response() override;
  Type type() const override { return TYPE_RESPONSE_ERROR; }

  const json_spirit::Value& id() const { return id_; }
  int code() const { return code_; }
  const std::string& message() const { return message_; }
  const json_spirit::Value& data() const { return data_; }

private:
  json_spirit::Value id_;
  int code_;
  std::string message_;
  json_spirit::Value data_;
};

/// A connection to a peer that speaks JSON-RPC. Any thread.
class JSON_RPC_Channel {
public:
  virtual ~JSON_RPC_Channel();
  /// Sends an answer. 0, or -1 when the peer is gone.
  virtual int send(JSON_RPC_Object_var object) = 0;
  /// Sends a request and waits for its answer. 0 when an answer came, which may be an error reply; else -1.
  virtual int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) = 0;
  /// Sends an error answer to the request with that id; what `send` returned.
  int send_error(int code, const json_spirit::Value& id, const std::string& message, const json_spirit::Value& data);
};
typedef std::shared_ptr<JSON_RPC_Channel> JSON_RPC_Channel_var;

/// The agent's channel to its server.
class Global_JSON_RPC_Channel {
public:
  /// The channel; empty while there is none.
  static JSON_RPC_Channel_var instance();
  static void instance(JSON_RPC_Channel_var channel);
};

/// Requests over a channel that may go away at any time.
class JSON_RPC_Session {
public:
  explicit JSON_RPC_Session(std::weak_ptr<JSON_RPC_Channel> channel) : channel_(std::move(channel)) {}
  /// Makes a request with an id of its own.
  static void make_rpc_request(const std::string& method, const json_spirit::Object& params, JSON_RPC_Request& request);
  /// 0 when `reply` holds an answer, -1 when the channel is gone or failed.
  int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply);

private:
  std::weak_ptr<JSON_RPC_Channel> channel_;
};

/// Serves requests of one or more methods.
class JSON_RPC_Handler {
public:
  virtual ~JSON_RPC_Handler();
  /// Handles `object` and answers it through `channel`. 0, or -1.
  virtual int handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) = 0;
};

/// A handler whose work runs on a worker thread of the server, never on the thread that reads the connection.
class JSON_RPC_Thread_Handler : public JSON_RPC_Handler {
public:
  ~JSON_RPC_Thread_Handler() override;
  /// Calls `handle_object_i` on a worker thread and waits for it. What it returned.
  int handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override;
  /// The work. `object` may be any message; several threads may call it at once.
  virtual int handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) = 0;
};

/// A channel that lives inside the process: `request` hands the message to a handler registered for its method and
/// takes the answer that the handler sends back. A method without a handler is answered with error -32601.
class In_Process_JSON_RPC_Channel : public JSON_RPC_Channel {
public:
  In_Process_JSON_RPC_Channel();
  ~In_Process_JSON_RPC_Channel() override;
  /// The handler stays the caller's and outlives the channel.
  void route(const std::string& method, JSON_RPC_Handler* handler);
  int send(JSON_RPC_Object_var object) override;
  int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) override;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
