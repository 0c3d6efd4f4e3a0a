#include "obs/agent/instance_handler/obs_instance_handler.h"

#include "testing/module/failing_allocator.h"

#include <gtest/gtest.h>

#include <cerrno>

MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()

extern "C" Instance_Handler* _make_OBS_Instance_Handler(void (**gobbler)(void*));

namespace {

typedef std::map<std::string, std::shared_ptr<Instance>> Instances;

TEST(obs_instance_handler, type_is_obs) {
  EXPECT_EQ("obs", OBS_Instance_Handler().type());
}

TEST(obs_instance_handler, probing_finds_the_one_instance) {
  OBS_Instance_Handler handler;
  Instances instances;
  ASSERT_EQ(0, handler.probe_instances(instances));
  ASSERT_EQ(1u, instances.size());
  const Instance& instance = *instances["OBS"];
  EXPECT_EQ("obs", instance.type);
  EXPECT_EQ("OBS", instance.name);
  EXPECT_EQ("", instance.uuid);
  EXPECT_EQ("{\"is_proxy\":true}", json_spirit::write(instance.options));
  EXPECT_TRUE(instance.logon_options.empty());
}

TEST(obs_instance_handler, probing_twice_leaves_the_newest_instance_and_others_alone) {
  OBS_Instance_Handler handler;
  Instances instances;
  instances["other"] = std::make_shared<Instance>();
  handler.probe_instances(instances);
  const std::shared_ptr<Instance> first = instances["OBS"];
  handler.probe_instances(instances);
  EXPECT_EQ(2u, instances.size());
  EXPECT_NE(first, instances["OBS"]);
}

TEST(obs_instance_handler, probing_without_memory_fails_with_errno_and_leaves_no_instance) {
  OBS_Instance_Handler handler;
  for (int nth = 1; nth < 100; ++nth) {
    Instances instances;
    errno = 0;
    int probed = 0;
    bool failed = false;
    {
      const module_testing::Short_Memory short_memory(nth);
      probed = handler.probe_instances(instances);
      failed = module_testing::allocations_left < 0;
    }
    if (!failed) {
      EXPECT_EQ(0, probed);
      EXPECT_GT(nth, 3);
      return;
    }
    EXPECT_EQ(-1, probed);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_TRUE(instances.empty());
  }
  FAIL() << "there is no end of allocations";
}

TEST(obs_instance_handler, every_instance_is_enabled) {
  OBS_Instance_Handler handler;
  std::string state = "old";
  EXPECT_EQ(0, handler.get_state("unknown", state));
  EXPECT_EQ("enabled", state);
}

TEST(obs_instance_handler, logon_changes_nothing) {
  OBS_Instance_Handler handler;
  json_spirit::Object options{{"a", 1}};
  EXPECT_EQ(0, handler.logon(nullptr, nullptr, nullptr, options));
  EXPECT_EQ("{\"a\":1}", json_spirit::write(options));
}

TEST(obs_instance_handler, factory_stores_its_disposer_and_makes_a_handler) {
  void (*gobbler)(void*) = nullptr;
  Instance_Handler* const handler = _make_OBS_Instance_Handler(&gobbler);
  ASSERT_NE(nullptr, handler);
  ASSERT_NE(nullptr, gobbler);
  EXPECT_NE(nullptr, dynamic_cast<OBS_Instance_Handler*>(handler));
  gobbler(handler);
  gobbler(nullptr);
}

TEST(obs_instance_handler, factory_without_memory_makes_none_with_errno) {
  void (*gobbler)(void*) = nullptr;
  errno = 0;
  Instance_Handler* none = nullptr;
  {
    const module_testing::Short_Memory short_memory(1);
    none = _make_OBS_Instance_Handler(&gobbler);
  }
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_NE(nullptr, gobbler);
}

} // namespace
