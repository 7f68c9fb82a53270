// CWmLibrary: a shared library that is loaded at run time, with its procedures found by name.
//
// One object holds at most one library and releases it when it is destroyed; procedures found in it are not
// to be called after that. Used by one thread at a time, any number of objects at once. Nothing is thrown;
// every fault is kLqErrLibrary with a text that names the file, the system loader's own in most cases. A real
// platform library provides the same three calls over its own loader.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"

class LQ_EXPORT CWmLibrary {
 public:
  // The flag selects a feature of the platform's loader that this layer does not have.
  explicit CWmLibrary(bool) {}
  ~CWmLibrary();
  CWmLibrary(const CWmLibrary&) = delete;
  CWmLibrary& operator=(const CWmLibrary&) = delete;

  // Loads the library at `path`, in place of one that was loaded before; on an error there is none. The path
  // must hold a "/", and nobody but root and the effective user may be able to write the file or to put
  // another one in its place (FXFile::CheckTrusted), since its code runs with all that this process may do.
  // The library's symbols stay its own: they are found through this object only. The flag is ignored.
  CWmError Load(const std::string& path, bool);

  // Puts the address of the procedure `name` into `procedure`, null on an error. The caller knows its type.
  CWmError GetProcedure(const char* name, void*& procedure) const;

 private:
  void release();

  void* handle_ = nullptr;
};
