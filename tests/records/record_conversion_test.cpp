// Key records from the application namespace.
#include "records/record_conversion.h"

#include "lqregistry/LqRegistryManagerClnt.h"
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
  OBGui::RegistryKeyInfo expected = record("", "", "", "");
  expected.enabledFlag = 0;
  EXPECT_TRUE(converted({}).equals(expected));
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
  source.association.edit().id = -9;
  OBGui::RegistryKeyInfo expected = record("Machine/Settings", "sNAME", "text");
  expected.deleteFlag = 1;
  expected.enabledFlag = -7;
  expected.encryptedValue = pstring();  // empty is not absent
  expected.association.edit().id = -9;
  EXPECT_TRUE(converted(source).equals(expected));

  source.encryptedValue = pstring("sesame");
  EXPECT_EQ(converted(source).encryptedValue->reveal(), "sesame");
  source.association.edit().id = 0;
  EXPECT_FALSE(converted(source).association.isSet()) << "0 stands for no entity";
  source.association.edit().id.clear();
  EXPECT_FALSE(converted(source).association.isSet());
  for (const char* word : {"value", "STRING", "ENCRYPTED", "VALUES"}) {
    source.valueType = word;
    EXPECT_EQ(converted(source).valueType.get(), word);
    EXPECT_EQ(getKeyType(word), 0U);
  }
  for (const unsigned type : {0U, 7U}) EXPECT_EQ(getKeyString(type), "STRING");
}

TEST_F(RecordConversion, AppendsAndTellsWhetherThereIsAnything) {
  OBGui::KeyList out;
  EXPECT_FALSE(client_.AppToObGui(out, {}));
  App::KeyList in(2);
  in[1].valueName = "second";
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client_.AppToObGui(out, in));
  EXPECT_TRUE(client_.AppToObGui(out, {}));
  ASSERT_EQ(out.size(), 4U);
  EXPECT_EQ(out[3].valueName.get(), "second");
}

}  // namespace
