#include "agent/module_loader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace {

std::string library(const std::string& name) {
  return std::string(OBS_LIBRARY_FOLDER "/") + name;
}

/// Loads a file that must be refused and returns the message.
std::string refusal(const std::string& path) {
  std::string error;
  const std::unique_ptr<Module> module = Module::load(path, error);
  EXPECT_EQ(nullptr, module.get());
  EXPECT_NE(std::string::npos, error.find(path)) << error;
  return error;
}

} // namespace

TEST(module_loader, missing_file_is_refused_by_name) {
  refusal("/nonexistent/module.so");
}

TEST(module_loader, text_file_is_refused_by_name) {
  const std::string path = testing::TempDir() + "no_module.so";
  std::ofstream(path) << "this is no shared object";
  refusal(path);
  std::remove(path.c_str());
}

TEST(module_loader, shared_object_without_factories_is_refused_with_the_first_missing_symbol) {
  EXPECT_NE(std::string::npos, refusal(library("libagent_platform.so")).find("_make_OBS_Instance_Handler"));
}

TEST(module_loader, module_without_one_factory_is_refused_with_that_symbol) {
  const std::string error = refusal(library("libbroken_module_no_symbol.so"));
  EXPECT_NE(std::string::npos, error.find("_make_OBS_")) << error;
}

TEST(module_loader, factory_that_makes_no_object_is_refused_with_its_symbol) {
  EXPECT_NE(std::string::npos, refusal(library("libbroken_module_null_object.so")).find("_make_OBS_Instance_Handler"));
}

TEST(module_loader, unresolved_symbol_is_refused_before_anything_runs) {
  EXPECT_NE(std::string::npos, refusal(library("libbroken_module_undefined.so")).find("symbol_that_nobody_has"));
}

TEST(module_loader, module_is_loaded_unloaded_and_loaded_again) {
  for (int i = 0; i < 3; ++i) {
    std::string error;
    const std::unique_ptr<Module> module = Module::load(library("obs/libobs_agent.so"), error);
    ASSERT_NE(nullptr, module.get()) << error;
    std::map<std::string, std::shared_ptr<Instance>> instances;
    EXPECT_EQ(0, module->instance_handler().probe_instances(instances));
    ASSERT_EQ(1u, instances.size());
    EXPECT_EQ("OBS", instances.begin()->first);
    EXPECT_EQ("obs", instances.begin()->second->type);
  }
}

TEST(module_loader, nothing_stays_registered_after_a_refusal) {
  refusal(library("libbroken_module_null_object.so"));
  std::string error;
  EXPECT_NE(nullptr, Module::load(library("obs/libobs_agent.so"), error)) << error;
}
