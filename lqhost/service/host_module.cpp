#include "lqhost/service/host_module.h"

#include <dlfcn.h>

#include "lqregistry/FXFile.h"

namespace host {

bool loadModules(const std::vector<std::string>& paths, std::string& fault) {
  for (const std::string& path : paths) {
    // Its code runs with all that the host may do.
    const CWmError error = FXFile::CheckTrusted(path);
    if (error.IsError() || path.find('/') == std::string::npos) {
      fault = "the module " + path + " cannot be loaded: " +
              (error.IsError() ? error.AsString() : "name it with its directory, as in ./" + path);
      return false;
    }
    void* const handle = dlopen(path.c_str(), RTLD_NOW);
    void* const entry = handle == nullptr ? nullptr : dlsym(handle, kModuleEntry);
    if (entry == nullptr) {
      const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in this C library
      fault =
          "the module " + path + " cannot be loaded: " + (reason == nullptr ? "it lacks its entry" : reason);
      return false;
    }
    if (const int result = reinterpret_cast<int (*)()>(entry)(); result != 0) {
      fault = path + ": the module refused the start with result " + std::to_string(result);
      return false;
    }
  }
  return true;
}

}  // namespace host
