// Enumeration: which records come of a registry, in which order, and what is passed over.
#include <dlfcn.h>

#include <cstring>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {
bool storesNoNul = false;
}  // namespace

// In front of the platform's own: a platform may hand out the bytes alone, without the NUL that ours adds.
bool LQPlatformInfo::getRegValue(const std::string& key, const std::string& name, unsigned& type,
                                 void* buffer, int& size) {
  using Read = bool (*)(LQPlatformInfo*, const std::string&, const std::string&, unsigned&, void*, int&);
  static const auto platformsOwn = reinterpret_cast<Read>(dlsym(
      RTLD_NEXT,
      "_ZN14LQPlatformInfo11getRegValueERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_RjPvRi"));
  if (!storesNoNul) return platformsOwn(this, key, name, type, buffer, size);
  std::string own(static_cast<std::size_t>(size), '\0');
  const bool isRead = platformsOwn(this, key, name, type, own.data(), size);
  if (isRead) std::memcpy(buffer, own.data(), static_cast<std::size_t>(size) - 1);
  return isRead;
}

namespace {

class Enumeration : public ProductTest {
 protected:
  void write(const std::string& key, const std::string& name, const std::string& data) {
    EXPECT_TRUE(info_.createRegKey(key));
    EXPECT_TRUE(info_.setRegValue(key, name, 0, data.data(), static_cast<int>(data.size())));
  }
  // Each record in one line.
  Lines enumerated() {
    OBGui::KeyList records;
    EXPECT_EQ(client_.enumerateClientKeysInfo("the path selects nothing", records), 0U);
    Lines lines;
    for (const OBGui::RegistryKeyInfo& key : records) {
      EXPECT_TRUE(key.deleteFlag.isSet() && key.deleteFlag == 0);
      EXPECT_TRUE(key.enabledFlag.isSet() && key.enabledFlag == 1);
      EXPECT_TRUE(key.keyPath.isSet() && key.value.isSet());
      EXPECT_FALSE(key.encryptedValue.isSet() || key.association.isSet());
      lines.push_back(key.keyPath.get() + "|" + key.valueName.get() + "|" + key.valueType.get() + "|" +
                      key.value.get());
    }
    return lines;
  }

  LqRegistryManagerClnt client_{""};
  LQPlatformInfo info_;
};

TEST_F(Enumeration, EachKeyComesBeforeItsValuesAndThoseBeforeTheKeysBelow) {
  write("~", "sOFTHEROOT", "is in no key");
  write("~B", "z", "last");
  write("~A/B/D", "x", "deep");
  write("~A/B", "x", "1");
  write("~A", "x", "2");
  write("~A", "Z", "before the small letters");
  ASSERT_TRUE(info_.createRegKey("~A/C"));
  write("SOFTWARE/Velmor/Instance002/A", "x", "another instance's");
  EXPECT_EQ(enumerated(), (Lines{"|A|KEY|", "A|Z|STRING|before the small letters", "A|x|STRING|2", "A|B|KEY|",
                                 "A/B|x|STRING|1", "A/B|D|KEY|", "A/B/D|x|STRING|deep", "A|C|KEY|", "|B|KEY|",
                                 "B|z|STRING|last"}));
}

TEST_F(Enumeration, ValuesAreTakenAsTextAndThoseTooLongForTheBufferPassedOver) {
  const std::string longest(10239, 'v');
  write("~A", "a", std::string("before\0after", 12));
  write("~A", "b", longest);
  write("~A", "c", longest + "v");
  write("~A", "d", "");
  write("~A", "sPASSWORD", "in clear");
  EXPECT_EQ(enumerated(), (Lines{"|A|KEY|", "A|a|STRING|before", "A|b|STRING|" + longest, "A|d|STRING|",
                                 "A|sPASSWORD|STRING|in clear"}));

  OBGui::KeyList records{record("kept", "as it was", "")};
  EXPECT_EQ(client_.fillKeyFieldInformation("A", {{"gone meanwhile", ""}, {"d", ""}}, records), 0U);
  EXPECT_EQ(client_.fillKeyFieldInformation("", {{"d", ""}}, records), 3U) << "the root has no record";
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[2].valueName.get(), "d");
}

TEST_F(Enumeration, NoValueEndsInTheRestOfAnother) {
  write("~A", "a", std::string(5000, 'x'));
  write("~A", "b", "short");
  write("~A", "c", "");
  storesNoNul = true;
  EXPECT_EQ(enumerated(),
            (Lines{"|A|KEY|", "A|a|STRING|" + std::string(5000, 'x'), "A|b|STRING|short", "A|c|STRING|"}));
  storesNoNul = false;
}

TEST_F(Enumeration, AParentIsListedWithTheRootsSignAndWithoutIt) {
  write("~A/B/D", "x", "deep");
  write("~A/C", "x", "1");
  write("~~A/E", "x", "a key whose name begins with the sign");
  const std::pair<const char*, std::list<std::string>> parents[] = {
      {"A", {"A/B", "A/B/D", "A/C"}}, {"~A", {"~A/B", "~A/B/D", "~A/C"}}, {"~~A", {"~~A/E"}}};
  for (const auto& [parent, below] : parents) {
    std::list<std::string> keys;
    EXPECT_EQ(client_.getAllClientKeys(parent, keys), 0U) << parent;
    EXPECT_EQ(keys, below);
  }
  std::list<std::string> none;
  for (const char* parent : {"~Absent", static_cast<const char*>(nullptr)})
    EXPECT_EQ(client_.getAllClientKeys(parent, none), 3U);
  const auto all = enumerated();
  EXPECT_NE(std::find(all.begin(), all.end(), "~A|E|KEY|"), all.end()) << "a name is not taken for a path";
}

TEST_F(Enumeration, WithoutARootThereIsNothingToEnumerate) {
  OBGui::KeyList records;
  EXPECT_EQ(client_.enumerateClientKeysInfo("", records), 3U) << "an instance that was never written to";
  write("~", "sOFTHEROOT", "is in no key");
  EXPECT_EQ(client_.enumerateClientKeysInfo("", records), 0U) << "a root without keys";
  EXPECT_EQ(client_.enumerateClientKeysInfo(nullptr, records), 3U);
  EXPECT_TRUE(records.empty());
}

}  // namespace
