// How one record of a batch is set and taken out.
#include "overhub/store/batch_edit.h"

#include <gtest/gtest.h>

#include "overhub/store/setting_place.h"

namespace {

// A record is added once and replaced afterwards, and so is its companion; the flags are what clients act on.
TEST(BatchEdit, KeepsOneRecordPerPathAndName) {
  OBGui::KeyList keys;
  RecordChange limit{.path = "~/Limits", .name = "nMAX", .value = "10"};
  setRecord(keys, limit);
  setRecord(keys, {.path = "~/Other", .name = "nMAX", .value = "-1"});
  limit.until = 1999999999;
  setRecord(keys, limit);
  setRecord(keys,
            {.path = "~/Limits", .name = "nMAX", .value = "20", .isDisabled = true, .until = 2000000000});
  setRecord(keys, {.path = "~/Gone", .name = "x", .secret = pstring("sesame"), .isRemoval = true});
  const auto text = [&keys] {
    std::string all;
    for (const OBGui::RegistryKeyInfo& key : keys)
      all += key.keyPath.get() + " " + key.valueName.get() + " " + key.valueType.get() + " " +
             key.value.get() + " " + std::to_string(key.deleteFlag) + std::to_string(key.enabledFlag) + "\n";
    return all;
  };
  const std::string rest =
      "~/Other nMAX STRING -1 01\n~/Limits nMAX_UNTIL STRING 2000000000 01\n~/Gone x ENCRYPTED ******** 11\n";
  EXPECT_EQ(text(), "~/Limits nMAX STRING 20 00\n" + rest);
  EXPECT_EQ(keys.back().encryptedValue->reveal(), "sesame");
  EXPECT_TRUE(unsetRecord(keys, "~/Limits", "nMAX"));
  for (const char* const absent : {"nMAX", "nmax_until"}) EXPECT_FALSE(unsetRecord(keys, "~/Limits", absent));
  EXPECT_EQ(text(), rest);
}

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
