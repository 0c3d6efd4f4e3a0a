#pragma once

#include "sdk/rpc/json_rpc.h"

#include <memory>
#include <string>

namespace web_testing {

/// The client's end of a channel: keeps the one answer. Answers -7 to `send` for the test to find again.
class Reply_Channel : public JSON_RPC_Channel {
public:
  static constexpr int SENT = -7;

  int send(JSON_RPC_Object_var object) override {
    ++sent;
    if (object->type() == JSON_RPC_Object::TYPE_RESPONSE_ERROR) {
      const JSON_RPC_Error_Response& error = static_cast<const JSON_RPC_Error_Response&>(*object);
      text = std::to_string(error.code()) + " " + error.message();
      if (!error.data().is_null())
        text += " " + json_spirit::write(error.data());
      id = error.id();
    } else {
      JSON_RPC_Response& response = static_cast<JSON_RPC_Response&>(*object);
      result = response.result();
      text = json_spirit::write(result);
      id = response.id();
    }
    return SENT;
  }
  int request(const JSON_RPC_Request&, JSON_RPC_Object_var&) override { return -1; }

  int sent = 0;
  std::string text; ///< the result, or "CODE MESSAGE DATA" of an error
  json_spirit::Value result;
  json_spirit::Value id;
};

} // namespace web_testing
