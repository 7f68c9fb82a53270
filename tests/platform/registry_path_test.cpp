// Key paths as callers write them, and the bounds on names.
#include "platform/registry/registry_path.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace std::string_literals;

TEST(RegistryPath, EveryFormOfAPathMeansOneKey) {
  const std::string root = "SOFTWARE/Velmor/I1";
  const std::map<std::string, std::vector<const char*>> forms = {
      {root, {"~", ""}},
      {root + "/A/B", {"~A/B", "~/A/B", "A//B/"}},
      {root + "/~A", {"~~A"}},
      {root + "/SOFTWARE", {"~SOFTWARE", "/SOFTWARE"}},
      {root + "/software", {"software"}},
      {"SOFTWARE/Other", {"SOFTWARE//Other/"}},
      {"SOFTWARE", {"SOFTWARE"}}};
  std::string path;
  for (const auto& [absolute, keys] : forms)
    for (const char* key : keys)
      EXPECT_TRUE(lqregistry::ResolvePath(key, "I1", path).ok() && path == absolute) << key << ": " << path;
}

TEST(RegistryPath, WhatCannotBeStoredIsRefused) {
  const std::pair<std::string, std::string> keys[] = {
      {"~A\0"s, "I1"}, {"A", ""}, {"A", "I2/A"}, {"A", "I\0"s}};
  for (const auto& [key, instance] : keys) {
    std::string path = "unchanged";
    EXPECT_EQ(lqregistry::ResolvePath(key, instance, path).code, kRegBadName) << key << " in " << instance;
    EXPECT_EQ(path, "unchanged");
  }
  for (const std::string& name : {""s, "n\0"s}) EXPECT_EQ(lqregistry::CheckValueName(name).code, kRegBadName);
}

}  // namespace
