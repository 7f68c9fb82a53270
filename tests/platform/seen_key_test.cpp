// What a transaction remembers of the key that it looked at last must never show anything but what the file
// holds.
#include <random>

#include "tests/platform/registry_fixture.h"

namespace {

using Model = std::map<std::string, std::map<std::string, std::string>>;

class SeenKeyTest : public RegistryTest {
 protected:
  // One step of a history, on the registry and on the model alike. Keys differ in how many values they come
  // to have.
  void step() {
    const std::string key = keys_[random(keys_.size())];
    for (int run = 0; run < 40; ++run) {  // batches come key by key
      const std::string name = std::to_string(random(key == keys_.back() ? 400 : 30));
      switch (random(8)) {
        case 0:
          EXPECT_EQ(info_.delRegField(key, name), model_[key].erase(name) != 0);
          break;
        case 1:
        case 2: {
          const std::string data = std::to_string(random(1'000'000));
          EXPECT_NE(info_.setString(key, name, data, 0), 0);
          model_[key][name] = data;
          break;
        }
        case 3:
          if (random(60) == 0) {
            static_cast<void>(info_.delRegKey(key));
            std::erase_if(model_,
                          [&](const auto& entry) { return (entry.first + "/").starts_with(key + "/"); });
          }
          break;
        default:
          expectValue(key, name);
      }
    }
  }

  void expectValue(const std::string& key, const std::string& name) {
    std::string data = "none";
    static_cast<void>(info_.getString(key, name, data));
    const auto& values = model_[key];
    const auto found = values.find(name);
    EXPECT_EQ(data, found == values.end() ? "none" : found->second) << key << " " << name;
  }

  void expectModel() {
    for (const std::string& key : keys_) {
      std::map<std::string, std::string> values;
      static_cast<void>(info_.getRegValues(key, values));
      EXPECT_EQ(values, model_[key]) << key;
      for (int name = 0; name < 400; ++name) expectValue(key, std::to_string(name));
    }
  }

  std::size_t random(std::size_t below) { return engine_() % below; }

  std::mt19937 engine_{20261123};
  const std::vector<std::string> keys_{"A", "A/B", "A/B/C", "many"};
  Model model_;
};

TEST_F(SeenKeyTest, ABatchShowsWhatItsWritesLeave) {
  {
    lqregistry::WriteBatch batch;
    batch.lock();
    expectValue("A/B", "0");
    EXPECT_TRUE(info_.createRegKey("A/B/C"));  // and with it the key that was not there
    EXPECT_TRUE(info_.setRegValue("A/B", "0", 0, "data", 4));
    model_["A/B"]["0"] = "data";
    for (int i = 0; i < 300; ++i) step();
    expectModel();
    EXPECT_TRUE(batch.commit());
  }
  lqregistry::UseFile(file_);  // from the file again
  expectModel();
  {
    const lqregistry::ReadSnapshot still;
    expectModel();
  }
  const Model committed = model_;
  lqregistry::WriteBatch batch;
  batch.lock();
  for (int i = 0; i < 30; ++i) step();
  batch.abandon();
  model_ = committed;
  expectModel();
}

// Scans would read 128 values for these look-ups, and of larger ones they keep a few only.
TEST_F(SeenKeyTest, LargeValuesAreNotKept) {
  const std::string large(1U << 19, 'x');
  for (int i = 0; i < 100; ++i) setValue("large", std::to_string(i), large);
  lqregistry::UseFile(file_);
  lqregistry::WriteBatch batch;
  batch.lock();
  const std::size_t before = memoryInUse();
  for (int i = 0; i < 8; ++i) expectValue("large", "none " + std::to_string(i));
  EXPECT_LT(memoryInUse(), before + 16 * large.size());
}

TEST_F(SeenKeyTest, ASnapshotStaysAsItWasUntilItEndsOrIsWrittenIn) {
  OtherProcess other(&carryOut);
  ASSERT_TRUE(other.ask("write old"));
  {
    const lqregistry::ReadSnapshot still;
    EXPECT_EQ(valueOf("A", "name"), "old");
    ASSERT_TRUE(other.ask("write new"));
    EXPECT_EQ(valueOf("A", "name"), "old");
    EXPECT_EQ(valueOf("A", "other"), std::nullopt);
    setValue("A", "other", "mine");
    EXPECT_EQ(valueOf("A", "name"), "new") << "what is written stands beside what is committed";
  }
  EXPECT_EQ(valueOf("A", "name"), "new");
  EXPECT_EQ(valueOf("A", "other"), "mine");
  EXPECT_TRUE(other.ask("read new"));
}

}  // namespace
