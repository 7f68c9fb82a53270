#include "lqhost/service/host_module.h"

#include <dlfcn.h>

#include <filesystem>

#include "lqregistry/FXFile.h"

namespace host {

namespace {

CWmError unloadable(const std::string& path, const std::string& why) {
  return {kLqErrLibrary, "the module " + path + " cannot be loaded: " + why};
}

}  // namespace

CWmError loadModules(const std::vector<std::string>& paths) {
  for (const std::string& name : paths) {
    // Without a directory, the loader would look for it elsewhere.
    const std::string path = std::filesystem::absolute(name);
    // Its code runs with all that the host may do.
    if (const CWmError error = FXFile::CheckTrusted(path); error.IsError())
      return unloadable(path, error.AsString());
    void* const handle = dlopen(path.c_str(), RTLD_NOW);
    void* const entry = handle == nullptr ? nullptr : dlsym(handle, kModuleEntry);
    if (entry == nullptr) {
      const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in this C library
      return unloadable(path, reason == nullptr ? "it lacks its entry" : reason);
    }
    if (const int result = reinterpret_cast<int (*)()>(entry)(); result != 0)
      return {kLqErrLibrary, path + ": the module refused the start with result " + std::to_string(result)};
  }
  return {};
}

}  // namespace host
