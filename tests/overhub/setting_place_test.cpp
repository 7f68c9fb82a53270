#include "overhub/store/setting_place.h"

#include <gtest/gtest.h>

namespace {

// Two forms of one path are one setting, or a machine would hold what was set last by either.
TEST(SettingPlace, IsOneForEveryFormOfAPath) {
  const std::pair<const char*, std::vector<const char*>> forms[] = {
      {"~", {"", "~", "~/", "/"}},
      {"~/A/B", {"A/B", "~A/B", "~/A/B", "~//A//B/", "/A/B"}},
      {"~/~A", {"~~A", "~/~A"}},
      {"~/SOFTWARE", {"~SOFTWARE", "/SOFTWARE", "~/SOFTWARE/"}},
      {"SOFTWARE/Other", {"SOFTWARE//Other/"}},
      {"SOFTWARE", {"SOFTWARE/"}}};
  for (const auto& [place, paths] : forms)
    for (const char* path : paths) EXPECT_EQ(settingPlace(path), place) << path;
}

}  // namespace
