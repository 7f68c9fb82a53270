// How one record of a batch is set and taken out.
#include "overhub/store/batch_edit.h"

#include <gtest/gtest.h>

namespace {

// One line a record, in the order of the list.
std::string textOf(const OBGui::KeyList& keys) {
  std::string text;
  for (const OBGui::RegistryKeyInfo& key : keys) {
    for (const std::string& part :
         {key.keyPath.get(), key.valueName.get(), key.valueType.get(), key.value.get()})
      text += part + " ";
    text += std::to_string(key.deleteFlag) + std::to_string(key.enabledFlag) + "\n";
  }
  return text;
}

RecordChange changeOf(const std::string& path, const std::string& name, const std::string& value) {
  RecordChange change;
  change.path = path;
  change.name = name;
  change.value = value;
  return change;
}

// A record is added once and replaced afterwards, and so is its companion; the flags are what clients act on.
TEST(BatchEdit, KeepsOneRecordPerPathAndName) {
  OBGui::KeyList keys;
  RecordChange limit = changeOf("~/Limits", "nMAX", "10");
  setRecord(keys, limit);
  setRecord(keys, changeOf("~/Other", "nMAX", "-1"));
  limit.until = 1999999999;
  setRecord(keys, limit);
  limit.value = "20";
  limit.until = 2000000000;
  limit.isDisabled = true;
  setRecord(keys, limit);
  RecordChange secret = changeOf("~/Gone", "x", "");
  secret.secret = pstring("sesame");
  secret.isRemoval = true;
  setRecord(keys, secret);
  const std::string rest =
      "~/Other nMAX STRING -1 01\n"
      "~/Limits nMAX_UNTIL STRING 2000000000 01\n"
      "~/Gone x ENCRYPTED ******** 11\n";
  EXPECT_EQ(textOf(keys), "~/Limits nMAX STRING 20 00\n" + rest);
  EXPECT_EQ(keys.back().encryptedValue->reveal(), "sesame");
  EXPECT_TRUE(unsetRecord(keys, "~/Limits", "nMAX"));
  for (const char* const absent : {"nMAX", "nmax_until"}) EXPECT_FALSE(unsetRecord(keys, "~/Limits", absent));
  EXPECT_EQ(textOf(keys), rest);
}

}  // namespace
