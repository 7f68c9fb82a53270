// The Additional Settings cache: one file, read whole and replaced whole.
#include "registry_client/settings_cache.h"

#include <array>
#include <sstream>
#include <utility>
#include <vector>

#include "lqregistry/FXFile.h"
#include "lqregistry/LqCriticalSection.h"
#include "lqregistry/LqSettings.h"

namespace {

// Held for the whole of each read and each write, so that no thread of this process sees half a file.
LqCriticalSection additionalSettingsCacheLock;

// The file is read in pieces of one byte less, so that each ends with a NUL.
constexpr std::size_t kReadBuffer = 4096;

// Without a base directory this is the bare file name, relative to the working directory.
std::string cachePath() {
  std::string path;
  LQPlatformInfo().getString(lqsettings::kBaseHome.key, lqsettings::kBaseHome.name, path);
  FXPath::Append(path, kSettingsCacheFile);
  return path;
}

CWmError openCache(const std::string& path, std::uint32_t access, std::uint32_t disposition,
                   auto_handle& handle) {
  // What it says is applied to the registry, so it has to be this service's own.
  CWmError error = FXFile::CheckTrusted(path);
  if (error.IsError()) return error;
  return FXFile::LQCreateFile(path, access, FXFile::kShareRead, nullptr, disposition,
                              FXFile::kAttributeNormal, nullptr, handle);
}

}  // namespace

std::string LqRegistryManagerClnt::getAdditionalSettingsCache() {
  constexpr const char* kTag = "getAdditionalSettingsCache";
  const LqCriticalSectionLock lock(additionalSettingsCacheLock);
  const ObEvent event;
  auto_handle handle;
  CWmError error = openCache(cachePath(), FXFile::kGenericRead, FXFile::kOpenExisting, handle);
  if (error.IsError() || !handle.isValid()) {
    event.DebugLvl(0, kLogContext, kTag, "Failed to open Additional Settings cache.[%s]", error.AsString());
    return {};
  }
  std::ostringstream contents;
  std::uint32_t bytesRead = 0;
  do {
    std::array<char, kReadBuffer> buffer{};
    error = FXFile::LQReadFile(handle, buffer.data(), kReadBuffer - 1, bytesRead);
    contents << buffer.data();  // as text: a NUL in the file ends its piece
  } while (!error.IsError() && bytesRead != 0);
  if (error.IsError()) {
    // "write" in a read is how administrators know this line.
    event.DebugLvl(0, kLogContext, kTag, "Failed to write Additional Settings cache.[%s]", error.AsString());
    return {};
  }
  std::string xml = std::move(contents).str();
  event.DebugLvl(4, kLogContext, kTag, "Additional Settings Cache XML [%s]", xml.c_str());
  return xml;
}

void LqRegistryManagerClnt::setAdditionalSettingsCache(std::string xml) {
  constexpr const char* kTag = "setAdditionalSettingsCache";
  const LqCriticalSectionLock lock(additionalSettingsCacheLock);
  const ObEvent event;
  const std::string path = cachePath();
  auto_handle handle;
  CWmError error = openCache(path, FXFile::kGenericWrite, FXFile::kCreateAlways, handle);
  if (error.IsError() || !handle.isValid()) {
    event.DebugLvl(0, kLogContext, kTag, "Failed to open Additional Settings cache.[%s]", error.AsString());
    return;
  }
  std::uint64_t bytesWritten = 0;
  error = FXFile::LQWriteFile(handle, xml.data(), xml.size(), bytesWritten);
  if (error.IsError()) {
    event.DebugLvl(0, kLogContext, kTag, "Failed to write Additional Settings cache.[%s]", error.AsString());
  } else {
    event.DebugLvl(4, kLogContext, kTag, "Successfully updated Additional Settings Cache at [%s]",
                   path.c_str());
  }
}

std::optional<std::string> settingsTextOf(OBGui::RegistryTaskResp& reply) {
  std::erase_if(reply.keys.edit(), [](const OBGui::RegistryKeyInfo& key) { return key.deleteFlag == 1; });
  std::string text;
  const bool isWhole = reply.serialize(text, false) == 0;
  reply.keys = OBGui::KeyList();
  return isWhole ? std::optional(std::move(text)) : std::nullopt;
}

bool mayReplaceSettingsCache(std::size_t repliedKeys, const std::optional<std::string>& text) {
  std::string cached = LqRegistryManagerClnt::getAdditionalSettingsCache();
  // Most replies bring what is there already; then there is nothing to count.
  if (cached.empty() || cached == text) return true;
  std::size_t cachedKeys = 0;
  return OBGui::RegistryTaskResp().isReadable(std::move(cached), cachedKeys) && cachedKeys <= repliedKeys;
}
