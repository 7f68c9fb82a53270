// The Additional Settings cache: one file, read and written whole, and the log tells what went wrong.
#include <sys/stat.h>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

class SettingsCache : public ProductTest {
 protected:
  SettingsCache() { setValue("Base", "dBASEHOME", dir_.path().string()); }
  static std::string read() { return LqRegistryManagerClnt::getAdditionalSettingsCache(); }
  static void write(const std::string& text) { LqRegistryManagerClnt::setAdditionalSettingsCache(text); }

  oblog::Capture log_;
};

TEST_F(SettingsCache, WhatIsWrittenIsReadBackWhole) {
  std::string text;
  for (int i = 0; text.size() < 20'000; ++i) text += "<key number=\"" + std::to_string(i) + "\"/>\n";
  // Around the size of a piece, where a reader in pieces goes wrong.
  for (const std::size_t size : {0UL, 1UL, 4094UL, 4095UL, 4096UL, 8190UL, 8191UL, text.size()}) {
    const std::string part = text.substr(0, size);
    log_.Clear();
    write(part);
    EXPECT_EQ(readFile(cacheFile()), part);
    EXPECT_EQ(read(), part);
    EXPECT_EQ(linesOf(log_),
              (Lines{"4|setAdditionalSettingsCache|Successfully updated Additional Settings Cache at [" +
                         cacheFile() + "]",
                     "4|getAdditionalSettingsCache|Additional Settings Cache XML [" + part + "]"}));
    for (const oblog::Line& line : log_.Lines()) EXPECT_EQ(line.context, -123456);
  }
  EXPECT_EQ(modeOf(cacheFile()), 0600U);
}

TEST_F(SettingsCache, ANulEndsItsPieceOnly) {
  writeFile(cacheFile(), std::string("seen\0unseen", 11) + std::string(4095 - 11, 'x') + "next piece");
  EXPECT_EQ(read(), "seennext piece");
}

TEST_F(SettingsCache, NoFileOrSomethingElseInItsPlaceIsReported) {
  const std::string unread = "0|getAdditionalSettingsCache|Failed to open Additional Settings cache.[";
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(hasLine(log_, unread + cacheFile() + ": No such file"));
  std::filesystem::create_directory(cacheFile());
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(hasLine(log_, unread + cacheFile() + ": not a regular file"));
  write("text");
  EXPECT_TRUE(hasLine(log_, "0|setAdditionalSettingsCache|Failed to open Additional Settings cache.["));
}

TEST_F(SettingsCache, AFullDiskIsReportedAndLeavesNoCache) {
  write("old");
  log_.Clear();
  {
    const FullDisk full(1000);
    write(std::string(5000, 'n'));
  }
  EXPECT_TRUE(hasLine(log_, "0|setAdditionalSettingsCache|Failed to write Additional Settings cache.["));
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(hasLine(log_, "4|getAdditionalSettingsCache|Additional Settings Cache XML []"));
}

TEST_F(SettingsCache, OneThatOthersCouldHaveWrittenIsNeitherReadNorReplaced) {
  write("<ours/>");
  ASSERT_EQ(chmod(cacheFile().c_str(), 0602), 0);
  EXPECT_EQ(read(), "");
  write("<other/>");
  for (const char* tag : {"get", "set"})
    EXPECT_TRUE(hasLine(log_, std::string("0|") + tag +
                                  "AdditionalSettingsCache|Failed to open Additional Settings cache.[" +
                                  cacheFile() + ": not trusted"));
  ASSERT_EQ(chmod(cacheFile().c_str(), 0600), 0);
  EXPECT_EQ(read(), "<ours/>");
}

TEST_F(SettingsCache, WithoutABaseDirectoryTheFileIsRelativeToTheWorkingDirectory) {
  removeValue("Base", "dBASEHOME");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  write("relative");
  std::filesystem::current_path(before);
  EXPECT_EQ(readFile(cacheFile()), "relative");
}

}  // namespace
