// Run-time loading over the system's dynamic loader.
#include "lqregistry/CWmLibrary.h"

#include <dlfcn.h>

#include "lqregistry/FXFile.h"

namespace {

CWmError loaderError() {
  const char* const text = dlerror();  // NOLINT(concurrency-mt-unsafe): per thread in this system's C library
  return {kLqErrLibrary, text == nullptr ? "unknown error of the loader" : text};
}

}  // namespace

CWmLibrary::~CWmLibrary() {
  release();
}

CWmError CWmLibrary::Load(const std::string& path, bool) {
  release();
  // The loader takes an empty name for the program itself, and looks for one without a directory in places
  // that nothing here has checked.
  if (path.find('/') == std::string::npos)
    return {kLqErrLibrary, "\"" + path + "\" names no library by its path"};
  const CWmError error = FXFile::CheckTrusted(path);
  if (error.IsError()) return {kLqErrLibrary, error.AsString()};
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  return handle_ == nullptr ? loaderError() : CWmError();
}

CWmError CWmLibrary::GetProcedure(const char* name, void*& procedure) const {
  procedure = handle_ == nullptr ? nullptr : dlsym(handle_, name);
  if (handle_ == nullptr) return {kLqErrLibrary, "no library is loaded"};
  return procedure == nullptr ? loaderError() : CWmError();
}

void CWmLibrary::release() {
  if (handle_ != nullptr) dlclose(handle_);
  handle_ = nullptr;
}
