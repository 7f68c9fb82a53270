// The Additional Settings cache: one file, read and written whole, and the log tells what went wrong.
#include <sys/stat.h>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

using test_support::readFile;
using test_support::writeFile;

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
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4094}, std::size_t{4095},
                                 std::size_t{4096}, std::size_t{8190}, std::size_t{8191}, text.size()}) {
    write(text.substr(0, size));
    EXPECT_EQ(readFile(cacheFile()), text.substr(0, size));
    EXPECT_EQ(read(), text.substr(0, size));
  }
  struct stat file {};
  ASSERT_EQ(stat(cacheFile().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600U);
}

TEST_F(SettingsCache, TheLogSaysWhatWasReadAndWritten) {
  write("<text/>");
  read();
  EXPECT_EQ(linesOf(log_),
            (std::vector<std::string>{
                "4|setAdditionalSettingsCache|Successfully updated Additional Settings Cache at [" +
                    cacheFile() + "]",
                "4|getAdditionalSettingsCache|Additional Settings Cache XML [<text/>]"}));
  for (const oblog::Line& line : log_.Lines()) EXPECT_EQ(line.context, -123456);
}

TEST_F(SettingsCache, ANulEndsItsPieceOnly) {
  writeFile(cacheFile(), std::string("seen\0unseen", 11) + std::string(4095 - 11, 'x') + "next piece");
  EXPECT_EQ(read(), "seennext piece");
}

TEST_F(SettingsCache, NoFileOrAFolderInItsPlaceIsReported) {
  EXPECT_EQ(read(), "");
  EXPECT_TRUE(hasLine(log_, "0|getAdditionalSettingsCache|Failed to open Additional Settings cache.["));
  std::filesystem::create_directory(cacheFile());
  EXPECT_EQ(read(), "");
  // "write" is how administrators know this line, though it is a read that failed.
  EXPECT_TRUE(hasLine(log_, "0|getAdditionalSettingsCache|Failed to write Additional Settings cache.["));
  write("text");
  EXPECT_TRUE(hasLine(log_, "0|setAdditionalSettingsCache|Failed to open Additional Settings cache.["));
}

TEST_F(SettingsCache, AFullDiskIsReported) {
  std::filesystem::create_symlink("/dev/full", cacheFile());
  write("text");
  EXPECT_TRUE(hasLine(log_, "0|setAdditionalSettingsCache|Failed to write Additional Settings cache.["));
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
