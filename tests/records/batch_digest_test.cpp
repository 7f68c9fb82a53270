// The digest of a batch: the same on both sides of a session, and another for whatever differs.
#include "records/batch_digest.h"

#include <set>

#include "tests/support/product_fixture.h"

namespace {

const std::string kKey(32, 'k');

class BatchDigest : public ProductTest {};

TEST_F(BatchDigest, IsThatOfWhatIsSentAndDiffersWithEachField) {
  OBGui::KeyList keys{record("Net", "sHOST", "a\xff&b"), secretRecord("Net", "sSECRET", "open")};
  keys[1].value = "********";
  keys[1].deleteFlag = 1;
  keys[1].enabledFlag = 0;
  // Reckoned apart from this code: HMAC-SHA256 over each text behind its length, 8 bytes, lowest first.
  EXPECT_EQ(batchDigest(keys, kKey), "b89d4f258b0768f07cd26a41f952ad15f7fbbbbef4bbf001f8997d19e2d5f160");

  OBGui::RegistryTaskResp sent;
  OBGui::RegistryTaskResp received;
  std::string text;
  sent.keys = keys;
  ASSERT_EQ(sent.serialize(text, true), 0);
  ASSERT_EQ(received.unserialize(text), 0);
  EXPECT_EQ(batchDigest(received.keys, kKey), batchDigest(keys, kKey));

  std::set<std::string> digests{batchDigest(keys, kKey), batchDigest(keys, std::string(32, 'l')),
                                batchDigest({}, kKey), batchDigest({keys[1], keys[0]}, kKey)};
  const std::function<void(OBGui::RegistryKeyInfo&)> changes[] = {
      [](auto& key) { key.keyPath = "Ne"; },
      [](auto& key) { key.valueName = "tsSECRET"; },
      [](auto& key) { key.valueType = "STRING"; },
      [](auto& key) { key.value = ""; },
      [](auto& key) { key.deleteFlag = 0; },
      [](auto& key) { key.enabledFlag = 1; },
      [](auto& key) { key.encryptedValue = pstring("0pen"); }};
  for (const auto& change : changes) {
    OBGui::KeyList changed = keys;
    change(changed[1]);
    digests.insert(batchDigest(changed, kKey));
  }
  EXPECT_EQ(digests.size(), 4 + std::size(changes));

  pstring unreadable;
  ASSERT_TRUE(pstring::fromStoredText("V8:bm90IG9wZW5hYmxlIGF0IGFsbCBoZXJl", unreadable));
  keys[1].encryptedValue = unreadable;
  EXPECT_EQ(batchDigest(keys, kKey), "");
}

}  // namespace
