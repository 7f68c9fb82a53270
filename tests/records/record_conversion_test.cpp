// Key records from the application namespace, and the type words.
#include "records/record_conversion.h"

#include "registry_client/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

class RecordConversion : public ProductTest {
 protected:
  OBGui::RegistryKeyInfo converted(const App::RegistryKeyInfo& source) {
    OBGui::KeyList out;
    EXPECT_TRUE(client_.AppToObGui(out, {source}));
    return out.at(0);
  }
  LqRegistryManagerClnt client_{"Instance001"};
};

TEST_F(RecordConversion, AnEmptyRecordGetsItsSixFieldsAndNoMore) {
  const OBGui::RegistryKeyInfo record = converted({});
  OBGui::RegistryKeyInfo expected;
  expected.valueName = "";
  expected.valueType = "";
  expected.value = "";
  expected.keyPath = "";
  expected.deleteFlag = 0;
  expected.enabledFlag = 0;
  EXPECT_TRUE(record.equals(expected));
}

TEST_F(RecordConversion, WhatIsSetIsTakenOver) {
  App::RegistryKeyInfo source;
  source.valueName = "sNAME";
  source.valueType = "VALUE";
  source.value = "text";
  source.keyPath = "Machine/Settings";
  source.deleteFlag = 1;
  source.enabledFlag = -7;
  source.encryptedValue = pstring();
  source.association.edit().id = 9;
  OBGui::RegistryKeyInfo record = converted(source);
  EXPECT_EQ(record.valueName.get(), "sNAME");
  EXPECT_EQ(record.valueType.get(), "STRING");
  EXPECT_EQ(record.value.get(), "text");
  EXPECT_EQ(record.keyPath.get(), "Machine/Settings");
  EXPECT_EQ(record.deleteFlag, 1);
  EXPECT_EQ(record.enabledFlag, -7);
  EXPECT_TRUE(record.encryptedValue.isSet()) << "empty is not absent";
  EXPECT_EQ(record.association->id, 9);

  source.association.edit().id = 0;
  EXPECT_FALSE(converted(source).association.isSet()) << "0 stands for no entity";
  source.association.edit().id.clear();
  EXPECT_FALSE(converted(source).association.isSet());
  for (const char* word : {"value", "STRING", "ENCRYPTED", "VALUES"}) {
    source.valueType = word;
    EXPECT_EQ(converted(source).valueType.get(), word);
  }
}

TEST_F(RecordConversion, AppendsAndTellsWhetherThereIsAnything) {
  OBGui::KeyList out;
  EXPECT_FALSE(client_.AppToObGui(out, {}));
  App::KeyList in(2);
  in[0].valueName = "first";
  in[1].valueName = "second";
  EXPECT_TRUE(client_.AppToObGui(out, in));
  EXPECT_TRUE(client_.AppToObGui(out, {}));
  ASSERT_EQ(out.size(), 2U);
  EXPECT_TRUE(client_.AppToObGui(out, in));
  ASSERT_EQ(out.size(), 4U);
  EXPECT_EQ(out[3].valueName.get(), "second");
}

TEST(TypeWords, AreFlatBothWays) {
  for (const char* word : {"", "STRING", "KEY", "ENCRYPTED", "anything"}) EXPECT_EQ(getKeyType(word), 0U);
  for (const unsigned type : {0U, 7U, 4294967295U}) EXPECT_EQ(getKeyString(type), "STRING");
}

}  // namespace
