#include "sdk/rpc/json_rpc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

typedef std::function<int(JSON_RPC_Channel_var, JSON_RPC_Object_var)> Work;

class Function_Handler : public JSON_RPC_Thread_Handler {
public:
  explicit Function_Handler(Work work) : work_(std::move(work)) {}
  int handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override {
    return work_(channel, object);
  }

private:
  Work work_;
};

class Throwing_Handler : public JSON_RPC_Handler {
public:
  int handle_object(JSON_RPC_Channel_var, JSON_RPC_Object_var) override { throw std::runtime_error("on your thread"); }
};

const JSON_RPC_Request& as_request(const JSON_RPC_Object_var& object) {
  EXPECT_EQ(JSON_RPC_Object::TYPE_REQUEST, object->type());
  return static_cast<const JSON_RPC_Request&>(*object);
}

/// Answers with the parameters.
int echo(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) {
  JSON_RPC_Response* response = new JSON_RPC_Response(as_request(object));
  response->result() = as_request(object).params();
  return channel->send(JSON_RPC_Object_var(response));
}

JSON_RPC_Request request(const std::string& method, const json_spirit::Object& params = {}) {
  JSON_RPC_Request made;
  JSON_RPC_Session::make_rpc_request(method, params, made);
  return made;
}

class In_Process : public ::testing::Test {
protected:
  void TearDown() override { Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var()); }

  const JSON_RPC_Error_Response& error_of(const JSON_RPC_Object_var& reply) {
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, reply->type());
    return static_cast<const JSON_RPC_Error_Response&>(*reply);
  }

  std::shared_ptr<In_Process_JSON_RPC_Channel> channel = std::make_shared<In_Process_JSON_RPC_Channel>();
  JSON_RPC_Object_var reply;
};

TEST_F(In_Process, request_is_answered_by_the_handler_of_its_method) {
  Function_Handler handler(echo);
  channel->route("echo", &handler);
  const JSON_RPC_Request asked = request("echo", {{"a", 1}});
  JSON_RPC_Session session(channel);
  ASSERT_EQ(0, session.request(asked, reply));
  ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, reply->type());
  JSON_RPC_Response& response = static_cast<JSON_RPC_Response&>(*reply);
  EXPECT_EQ(asked.id(), response.id());
  EXPECT_EQ(json_spirit::Value(json_spirit::Object{{"a", 1}}), response.result());
}

TEST_F(In_Process, work_runs_on_a_thread_of_its_own) {
  std::thread::id worker;
  Function_Handler handler([&](JSON_RPC_Channel_var c, JSON_RPC_Object_var o) {
    worker = std::this_thread::get_id();
    return echo(c, o);
  });
  channel->route("x", &handler);
  ASSERT_EQ(0, channel->request(request("x"), reply));
  EXPECT_NE(std::this_thread::get_id(), worker);
  EXPECT_NE(std::thread::id(), worker);
}

TEST_F(In_Process, unknown_method_is_an_error_reply) {
  const JSON_RPC_Request asked = request("nothing");
  ASSERT_EQ(0, channel->request(asked, reply));
  EXPECT_EQ(-32601, error_of(reply).code());
  EXPECT_EQ("Method 'nothing' not found", error_of(reply).message());
  EXPECT_EQ(asked.id(), error_of(reply).id());
}

TEST_F(In_Process, route_can_be_taken_away) {
  Function_Handler handler(echo);
  channel->route("echo", &handler);
  channel->route("echo", nullptr);
  ASSERT_EQ(0, channel->request(request("echo"), reply));
  EXPECT_EQ(-32601, error_of(reply).code());
}

TEST_F(In_Process, error_sent_by_the_handler_is_the_answer_whatever_it_returns) {
  Function_Handler handler([](JSON_RPC_Channel_var c, JSON_RPC_Object_var o) {
    EXPECT_EQ(0, c->send_error(-32600, as_request(o).id(), "bad", json_spirit::Object{{"code", "X"}}));
    return -1;
  });
  channel->route("x", &handler);
  ASSERT_EQ(0, channel->request(request("x"), reply));
  EXPECT_EQ(-32600, error_of(reply).code());
  EXPECT_EQ("bad", error_of(reply).message());
  EXPECT_EQ("X", json_spirit::require_str(error_of(reply).data().get_obj(), "code"));
}

TEST_F(In_Process, handler_that_says_nothing_is_no_answer) {
  Function_Handler handler([](JSON_RPC_Channel_var, JSON_RPC_Object_var) { return 0; });
  channel->route("x", &handler);
  EXPECT_EQ(-1, channel->request(request("x"), reply));
  EXPECT_TRUE(reply.null());
}

TEST_F(In_Process, exception_of_a_handler_becomes_an_internal_error) {
  Function_Handler worker(
      [](JSON_RPC_Channel_var, JSON_RPC_Object_var) -> int { throw std::runtime_error("on my thread"); });
  Throwing_Handler direct;
  Function_Handler odd([](JSON_RPC_Channel_var, JSON_RPC_Object_var) -> int { throw 5; });
  channel->route("worker", &worker);
  channel->route("direct", &direct);
  channel->route("odd", &odd);
  for (const auto& expected : {std::make_pair("worker", "on my thread"), std::make_pair("direct", "on your thread"),
                               std::make_pair("odd", "unknown exception")}) {
    const JSON_RPC_Request asked = request(expected.first);
    ASSERT_EQ(0, channel->request(asked, reply));
    EXPECT_EQ(-32603, error_of(reply).code());
    EXPECT_EQ(expected.second, error_of(reply).message());
    EXPECT_EQ(asked.id(), error_of(reply).id());
  }
}

TEST_F(In_Process, only_the_first_answer_counts) {
  Function_Handler handler([](JSON_RPC_Channel_var c, JSON_RPC_Object_var o) {
    EXPECT_EQ(-1, c->send(JSON_RPC_Object_var()));
    EXPECT_EQ(-1, c->send(o));
    EXPECT_EQ(0, echo(c, o));
    EXPECT_EQ(-1, echo(c, o));
    return 0;
  });
  channel->route("x", &handler);
  EXPECT_EQ(0, channel->request(request("x"), reply));
}

TEST_F(In_Process, answer_after_the_request_has_ended_reaches_nobody) {
  JSON_RPC_Channel_var kept;
  JSON_RPC_Object_var object;
  Function_Handler handler([&](JSON_RPC_Channel_var c, JSON_RPC_Object_var o) {
    kept = c;
    object = o;
    return 0;
  });
  channel->route("x", &handler);
  EXPECT_EQ(-1, channel->request(request("x"), reply));
  channel.reset();
  EXPECT_EQ(-1, echo(kept, object));
  EXPECT_EQ(-1, kept->request(request("x"), reply));
}

TEST_F(In_Process, handler_can_ask_back_while_it_works) {
  Function_Handler inner(echo);
  Function_Handler outer([](JSON_RPC_Channel_var c, JSON_RPC_Object_var o) {
    JSON_RPC_Object_var answer;
    EXPECT_EQ(0, c->request(request("inner"), answer));
    return echo(c, o);
  });
  channel->route("inner", &inner);
  channel->route("outer", &outer);
  EXPECT_EQ(0, channel->request(request("outer"), reply));
}

TEST_F(In_Process, calls_of_several_threads_get_their_own_answers) {
  Function_Handler handler(echo);
  channel->route("echo", &handler);
  std::mutex mutex;
  std::set<ACE_UINT64> ids;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread)
    threads.emplace_back([&, thread] {
      for (int call = 0; call < 25; ++call) {
        const json_spirit::Object params{{"n", thread * 1000 + call}};
        const JSON_RPC_Request asked = request("echo", params);
        JSON_RPC_Object_var answer;
        ASSERT_EQ(0, channel->request(asked, answer));
        JSON_RPC_Response& response = static_cast<JSON_RPC_Response&>(*answer);
        ASSERT_EQ(json_spirit::Value(params), response.result());
        const std::lock_guard<std::mutex> guard(mutex);
        ids.insert(asked.id().get_uint64());
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(200u, ids.size());
}

TEST_F(In_Process, nobody_listens_to_what_is_sent_outside_a_request) {
  EXPECT_EQ(-1, channel->send(JSON_RPC_Object_var(new JSON_RPC_Request(request("x")))));
}

TEST_F(In_Process, session_over_a_channel_that_is_gone_fails) {
  JSON_RPC_Session session(channel);
  channel.reset();
  EXPECT_EQ(-1, session.request(request("x"), reply));
  EXPECT_EQ(-1, JSON_RPC_Session(std::weak_ptr<JSON_RPC_Channel>()).request(request("x"), reply));
}

TEST_F(In_Process, global_channel_is_what_was_put_there) {
  EXPECT_EQ(nullptr, Global_JSON_RPC_Channel::instance());
  Global_JSON_RPC_Channel::instance(channel);
  EXPECT_EQ(channel, Global_JSON_RPC_Channel::instance());
}

TEST(Rpc_Object, response_to_a_request_carries_its_id_and_no_result) {
  const JSON_RPC_Request asked("m", json_spirit::Value(), "id-1");
  JSON_RPC_Response response(asked);
  EXPECT_EQ("id-1", response.id().get_str());
  EXPECT_TRUE(response.result().is_null());
}

} // namespace
