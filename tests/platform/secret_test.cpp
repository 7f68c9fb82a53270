// Protected values and their key: what is sealed, whose key it is, and what happens when the key is lost.
#include <sys/stat.h>

#include "lqregistry/pstring.h"
#include "tests/platform/registry_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kKeyBytes = 64;

class Secrets : public RegistryTest {
 protected:
  Secrets() { pstring::UseKeyFile(""); }

  // As a process that starts anew.
  void restart() const { lqregistry::UseFile(file_); }
  void makeRegistry() { ASSERT_TRUE(info_.setString("A", "name", "data", 0)) << info_.getRegErrorText(); }

  // Why the key cannot be used; empty when it can.
  static std::string complaint() { return pstring::CheckKey().AsString(); }
  // Nothing is protected, `words` say why in one error line, and nothing but `left` lies where the key was.
  void expectNoKey(const std::vector<std::string>& words, const std::string& left) const {
    restart();
    const oblog::Capture log;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(pstring("secret").getV8Password(), "");
    pstring opened;
    EXPECT_FALSE(pstring::fromV8Password(sealed_, opened));
    ASSERT_TRUE(log.Lines().size() == 1 || log.Lines().size() == 2);  // reading has a cause of its own
    for (const std::string& word : words) {
      EXPECT_TRUE(contains(log.Lines()[0].text, word)) << word << " in " << log.Lines()[0].text;
      EXPECT_TRUE(contains(complaint(), word)) << word << " in " << complaint();
    }
    EXPECT_EQ(readFile(key_), left);
  }
  void expectKeyOf(const std::string& sealed) const {
    restart();
    EXPECT_EQ(complaint(), "");
    EXPECT_EQ(pstring("secret").getV8Password(), sealed);
  }

  void toFormat1() const {
    lqregistry::UseFile("/nowhere");
    sql("DROP TABLE facts; PRAGMA user_version = 1");
    restart();
  }

  std::string key_ = file_ + ".key";
  std::string sealed_;
};

TEST_F(Secrets, V8TextIsDeterministicPerKeyAndCannotBeAltered) {
  makeRegistry();
  const std::string text = pstring("correct horse").getV8Password();
  EXPECT_EQ(text, pstring("correct horse").getV8Password());
  EXPECT_NE(text, pstring("correct house").getV8Password());

  pstring out("kept");
  // Everything but the last character, whose low bits may carry nothing.
  for (std::size_t i = 0; i + 4 < text.size(); ++i) {
    std::string altered = text;
    altered[i] = altered[i] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(pstring::fromV8Password(altered, out)) << "at " << i;
  }
  for (const std::string& other : {text.substr(0, text.size() - 4), text.substr(3), std::string("V8:"),
                                   std::string("V8:AAAA"), text + "\n", "V8:" + text})
    EXPECT_FALSE(pstring::fromV8Password(other, out)) << other;
  EXPECT_EQ(out.reveal(), "kept");

  ASSERT_FALSE(pstring::CreateKeyFile(dir_ / "another.key").IsError());
  pstring::UseKeyFile(dir_ / "another.key");
  EXPECT_FALSE(pstring::fromV8Password(text, out));
  EXPECT_NE(text, pstring("correct horse").getV8Password());
  pstring::UseKeyFile("");
  ASSERT_TRUE(pstring::fromV8Password(text, out));
  EXPECT_EQ(out.reveal(), "correct horse");
  ASSERT_TRUE(pstring::fromV8Password("", out));
  EXPECT_TRUE(out.empty());
}

TEST_F(Secrets, TheKeyComesWithTheRegistryAndIsOneForAllWhoMakeThemAtOnce) {
  EXPECT_TRUE(contains(complaint(), file_ + ": the registry file does not exist, so no protection key"));
  EXPECT_EQ(pstring("").getV8Password(), "");
  EXPECT_FALSE(fs::exists(file_)) << "only what is protected makes it";
  std::vector<pid_t> children;
  for (int i = 0; i < 6; ++i) {
    children.push_back(startChild([&] {
      // Half of them protect something, and half just write.
      if (i % 2 == 0) writeFile(dir_ / ("text." + std::to_string(i)), pstring("secret").getV8Password());
      return info_.setString("A", std::to_string(i), "data", 0) != 0 ? 0 : 1;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(endOf(child), 0);
  std::map<std::string, std::string> values;
  EXPECT_TRUE(info_.getRegValues("A", values));
  EXPECT_EQ(values.size(), 6U);
  const std::string text = pstring("secret").getV8Password();
  EXPECT_NE(text, "");
  for (int i = 0; i < 6; i += 2) EXPECT_EQ(readFile(dir_ / ("text." + std::to_string(i))), text);
  EXPECT_EQ(modeOf(key_), 0600U);
  EXPECT_EQ(fs::file_size(key_), kKeyBytes);
  for (const auto& entry : fs::directory_iterator(dir_.path()))
    EXPECT_FALSE(entry.path().string().starts_with(key_ + ".")) << entry.path() << " was left behind";
}

TEST_F(Secrets, AKeyThatCannotBeUsedIsNamedAndNeverReplaced) {
  makeRegistry();
  sealed_ = pstring("secret").getV8Password();
  const std::string good = readFile(key_);
  const std::string away = dir_ / "away";

  fs::rename(key_, away);
  expectNoKey({key_, "missing", file_, "backup"}, "");
  writeFile(key_, std::string(kKeyBytes, 'k'));
  ASSERT_EQ(chmod(key_.c_str(), 0600), 0);
  expectNoKey({key_, "not the protection key that belongs to " + file_, "backup"},
              std::string(kKeyBytes, 'k'));
  for (const std::size_t size : {kKeyBytes - 1, kKeyBytes + 1}) {
    writeFile(key_, good.substr(0, kKeyBytes - 1) + std::string(size - kKeyBytes + 1, 'k'));
    expectNoKey({key_, "not a protection key", std::to_string(size) + " bytes"}, readFile(key_));
  }
  writeFile(key_, good);
  for (const mode_t mode : {0640U, 0604U}) {
    ASSERT_EQ(chmod(key_.c_str(), mode), 0);
    expectNoKey({"others may read", "chmod 600 " + key_}, good);
  }
  ASSERT_EQ(chmod(key_.c_str(), 0620), 0);
  expectNoKey({"chmod go-w " + key_}, good);
  fs::remove(key_);
  fs::create_symlink(away, key_);
  expectNoKey({key_, "not a regular file"}, good);
  fs::remove(key_);
  ASSERT_EQ(mkfifo(key_.c_str(), 0600), 0);
  restart();
  EXPECT_TRUE(contains(complaint(), "not a regular file")) << "and nothing waits for a writer";

  fs::remove(key_);
  fs::rename(away, key_);
  expectKeyOf(sealed_);
  EXPECT_TRUE(pstring::CreateKeyFile(key_).IsError());
  EXPECT_EQ(readFile(key_), good);
}

TEST_F(Secrets, ARegistryWithoutItsKeyAndAKeyWithoutItsRegistryAreToldApart) {
  makeRegistry();
  sealed_ = pstring("secret").getV8Password();
  const std::string good = readFile(key_);
  lqregistry::UseFile("/nowhere");

  // Copied to another machine, which has a key of its own or none.
  const std::string copy = dir_ / "copy.db";
  fs::copy_file(file_, copy);
  lqregistry::UseFile(copy);
  EXPECT_EQ(valueOf("A", "name"), "data");
  EXPECT_TRUE(contains(complaint(), copy + ".key: the protection key is missing (it belongs to " + copy));
  EXPECT_FALSE(fs::exists(copy + ".key"));

  fs::rename(file_, dir_ / "away");
  expectNoKey({file_, key_}, good);
  EXPECT_TRUE(contains(complaint(), "put back the registry that " + key_)) << complaint();
  EXPECT_EQ(info_.setString("A", "name", "data", 0), 0);
  for (const std::string& word : {key_, std::string("put the registry back")})
    EXPECT_TRUE(contains(info_.getRegErrorText(), word)) << info_.getRegErrorText();
  EXPECT_FALSE(fs::exists(file_));
  writeFile(file_, "");
  EXPECT_EQ(info_.setString("A", "name", "data", 0), 0) << "an empty file is no registry either";
  EXPECT_TRUE(!info_.delRegKey("A") && info_.getRegError() == kRegKeyMissing) << "nor is it made one";
  fs::rename(dir_ / "away", file_);
  expectKeyOf(sealed_);
}

// A process that is killed between the two steps leaves a key beside its place.
TEST_F(Secrets, AKeyThatWasNotPutInPlaceYetIsFound) {
  makeRegistry();
  const std::string sealed = pstring("secret").getV8Password();
  fs::rename(key_, key_ + ".new");
  expectKeyOf(sealed);
  EXPECT_FALSE(fs::exists(key_ + ".new"));

  // Before the registry was there, it is worth nothing; and another one's is not taken.
  lqregistry::UseFile("/nowhere");
  fs::rename(key_, key_ + ".new");
  fs::rename(file_, dir_ / "away");
  restart();
  makeRegistry();
  const std::string other = pstring("secret").getV8Password();
  EXPECT_NE(other, sealed);
  lqregistry::UseFile("/nowhere");
  fs::rename(key_, key_ + ".new");
  fs::rename(dir_ / "away", file_);
  restart();
  EXPECT_TRUE(contains(complaint(), "missing"));
}

TEST_F(Secrets, AnOlderRegistryAdoptsItsKeyOrGetsOneWhileItHoldsNoSecrets) {
  makeRegistry();
  sealed_ = pstring("secret").getV8Password();
  ASSERT_TRUE(info_.setString("A", "secret", sealed_, 0));
  const std::string good = readFile(key_);

  toFormat1();
  EXPECT_EQ(valueOf("A", "name"), "data");
  expectKeyOf(sealed_);
  writeFile(key_, std::string(kKeyBytes, 'k'));
  expectNoKey({"not the protection key"}, std::string(kKeyBytes, 'k'));

  // Lost already, it stays lost, until it is put back; then it counts.
  toFormat1();
  fs::remove(key_);
  ASSERT_TRUE(info_.setString("A", "name", "new data", 0));
  expectNoKey({key_, "missing"}, "");
  writeFile(key_, good);
  ASSERT_EQ(chmod(key_.c_str(), 0640), 0);
  expectNoKey({"others may read"}, good);
  ASSERT_EQ(chmod(key_.c_str(), 0600), 0);
  expectKeyOf(sealed_);
  writeFile(key_, std::string(kKeyBytes, 'k'));
  expectNoKey({"not the protection key"}, std::string(kKeyBytes, 'k'));

  // Nothing was ever protected, so nothing is lost with a new key.
  ASSERT_TRUE(info_.delRegField("A", "secret"));
  toFormat1();
  fs::remove(key_);
  EXPECT_EQ(valueOf("A", "name"), "new data");
  EXPECT_EQ(complaint(), "");
  EXPECT_EQ(fs::file_size(key_), kKeyBytes);
}

}  // namespace
