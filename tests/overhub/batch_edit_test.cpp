// Changes of a batch, record by record.
#include "overhub/store/batch_edit.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::string> textsOf(const OBGui::KeyList& keys) {
  std::vector<std::string> texts;
  for (const OBGui::RegistryKeyInfo& key : keys)
    texts.push_back(key.keyPath.get() + " " + key.valueName.get() + "=" + key.value.get());
  return texts;
}

TEST(BatchEdit, ARecordTakesThePlaceOfTheOneWithItsPathAndName) {
  OBGui::KeyList keys;
  RecordChange change{"~A", "x", "STRING", "1", {}, false, false, 1000};
  setRecord(keys, change);
  EXPECT_EQ(textsOf(keys), (std::vector<std::string>{"~A x=1", "~A x_UNTIL=1000"}));
  change.path = "~B";
  change.until.reset();
  setRecord(keys, change);
  change.path = "~A";
  change.value = "2";
  change.until = 2000;
  setRecord(keys, change);
  EXPECT_EQ(textsOf(keys), (std::vector<std::string>{"~A x=2", "~A x_UNTIL=2000", "~B x=1"}));

  EXPECT_FALSE(unsetRecord(keys, "~A", "X"));
  EXPECT_TRUE(unsetRecord(keys, "~A", "x"));
  EXPECT_EQ(textsOf(keys), (std::vector<std::string>{"~A x_UNTIL=2000", "~B x=1"}));
}

TEST(BatchEdit, ARemovalADisabledRecordAndASecretAreToldApart) {
  OBGui::KeyList keys;
  setRecord(keys, {"~", "gone", "STRING", {}, {}, true, false, {}});
  setRecord(keys, {"~", "off", "STRING", "1", {}, false, true, {}});
  setRecord(keys, {"~", "sPW", "STRING", {}, pstring("sesame"), false, false, {}});
  ASSERT_EQ(textsOf(keys), (std::vector<std::string>{"~ gone=", "~ off=1", "~ sPW=********"}));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(keys[i].deleteFlag, i == 0 ? 1 : 0);
    EXPECT_EQ(keys[i].enabledFlag, i == 1 ? 0 : 1);
    EXPECT_EQ(isSecret(keys[i]), i == 2);
  }
  EXPECT_EQ(keys[2].valueType.get(), "ENCRYPTED");
  EXPECT_EQ(keys[2].encryptedValue->reveal(), "sesame");
}

}  // namespace
