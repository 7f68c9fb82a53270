// The product library as a host sees it: loaded at run time, its task callbacks found by their plain names.
#pragma once

#include "lqregistry/CWmError.h"
#include "lqregistry/LqPeriodicTaskStatus.h"

namespace host {

using TaskCallback = int (*)(LqPeriodicTaskStatus*);

class ProductLibrary {
 public:
  // Loads the library; error() tells why it could not be.
  ProductLibrary();
  ~ProductLibrary();
  ProductLibrary(const ProductLibrary&) = delete;
  ProductLibrary& operator=(const ProductLibrary&) = delete;

  const CWmError& error() const { return error_; }

  // The function of that plain name; null, with error() set, when the library has none.
  void* find(const char* name);
  TaskCallback findTask(const char* name) { return reinterpret_cast<TaskCallback>(find(name)); }

 private:
  void* handle_ = nullptr;
  CWmError error_;
};

}  // namespace host
