#include "sdk/instance/instance_handler.h"

#include <gtest/gtest.h>

namespace {

class Two_Instances : public Instance_Handler {
public:
  Two_Instances() : Instance_Handler("test") {}
  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) override {
    instances["good"] = std::make_shared<Instance>();
    instances["bad"] = std::make_shared<Instance>();
    return probed;
  }
  int get_state(const char* instance, std::string& state) override {
    state = "enabled";
    return std::string(instance) == "bad" ? bad : 0;
  }
  int logon(const char*, const char*, const char*, json_spirit::Object&) override { return 0; }

  int probed = 0;
  int bad = 0;
};

typedef std::map<std::string, std::string> States;

TEST(Instances, states_are_asked_for_every_probed_instance) {
  Two_Instances handler;
  States states;
  EXPECT_EQ(0, handler.get_states(states));
  EXPECT_EQ((States{{"good", "enabled"}, {"bad", "enabled"}}), states);
}

TEST(Instances, one_that_cannot_tell_its_state_does_not_hide_the_others) {
  Two_Instances handler;
  handler.bad = -1;
  States states;
  EXPECT_EQ(-1, handler.get_states(states));
  EXPECT_EQ((States{{"good", "enabled"}}), states);
}

TEST(Instances, failed_probe_gives_no_states) {
  Two_Instances handler;
  handler.probed = -1;
  States states;
  EXPECT_EQ(-1, handler.get_states(states));
  EXPECT_TRUE(states.empty());
}

TEST(Instances, base_accepts_the_rest) {
  Two_Instances handler;
  json_spirit::Object options;
  EXPECT_EQ("test", handler.type());
  EXPECT_EQ(0, handler.init(0, nullptr));
  EXPECT_EQ(0, handler.fini());
  EXPECT_EQ(0, handler.logoff("good"));
  EXPECT_EQ(0, handler.update_options("good", "user", "password", options));
  EXPECT_TRUE(options.empty());
}

} // namespace
