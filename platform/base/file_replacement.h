// A file on its way into the place of another: written beside it under its own name, put in place at once.
#pragma once

#include <string>

#include "lqregistry/FXFile.h"

// What the file layer's calls share. Errors name the file.
namespace lqfile {

CWmError errorOf(const std::string& what);
CWmError notRegular(const std::string& path);

// The directory that holds `path`, as a path that can be opened.
std::string directoryOf(const std::string& path);

// Opens a regular file; anything else is an error that comes at once, a pipe without a writer too. `flags`
// are those of open(2).
CWmError openRegular(const std::string& path, int flags, auto_handle& handle);

// Puts the entries of the directory that holds `path` on disk.
CWmError syncDirectoryOf(const std::string& path);

// All of the bytes, or an error with none that stay.
CWmError writeAll(const auto_handle& handle, const void* data, std::uint64_t size,
                  std::uint64_t& bytesWritten);

}  // namespace lqfile

// The descriptor belongs to the handle that also holds this object. It carries a lock as long as it is open,
// by which others see that the temporary file is no left-over.
class FileReplacement {
 public:
  // Makes the temporary file for `target` and removes those that nobody writes any more.
  static CWmError begin(const std::string& target, auto_handle& handle);

  FileReplacement(std::string target, std::string temporary)
      : target_(std::move(target)), temporary_(std::move(temporary)) {}
  // Not put in place: the temporary file goes.
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  bool isPlaced() const { return isPlaced_; }
  CWmError place(const auto_handle& handle);
  // After a failed write: in the target's place then lies an empty file, for which no disk is too full.
  void placeEmpty(const auto_handle& handle);

 private:
  CWmError moveIntoPlace();

  std::string target_;
  std::string temporary_;
  bool isPlaced_ = false;
};
