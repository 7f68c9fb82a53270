#include "lqhost/service/product_library.h"

#include <dlfcn.h>

namespace host {

namespace {

// By the name that it is linked under, so that the library which is in the process already is the one.
constexpr const char* kLibrary = "libLqRegistryClnt.so." LQ_SOVERSION;

CWmError lastError() {
  const char* const text = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in this system's C library
  return {kLqErrLibrary, text == nullptr ? "unknown error" : text};
}

}  // namespace

ProductLibrary::ProductLibrary() : handle_(dlopen(kLibrary, RTLD_NOW)) {
  if (handle_ == nullptr) error_ = lastError();
}

ProductLibrary::~ProductLibrary() {
  if (handle_ != nullptr) dlclose(handle_);
}

void* ProductLibrary::find(const char* name) {
  if (handle_ == nullptr) return nullptr;
  void* const symbol = dlsym(handle_, name);
  if (symbol == nullptr) error_ = lastError();
  return symbol;
}

}  // namespace host
