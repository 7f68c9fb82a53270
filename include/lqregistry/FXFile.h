// FXFile, FXPath and auto_handle: file access with the access, share and disposition codes of the platform's
// file layer, mapped to what they mean on Linux.
//
// Stateless, callable from any thread. Nothing is thrown; every fault is a CWmError that names the file. A
// real platform library provides the same calls; files created here get mode 0600, since what the product
// writes may hold settings that are nobody else's business.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"

// Closes the file when it goes out of scope.
class LQ_EXPORT auto_handle {
 public:
  auto_handle() = default;
  explicit auto_handle(int descriptor) : descriptor_(descriptor) {}
  ~auto_handle() { reset(); }
  auto_handle(auto_handle&& other) noexcept : descriptor_(other.release()) {}
  auto_handle& operator=(auto_handle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  bool isValid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  int release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
  }
  void reset(int descriptor = -1);

 private:
  int descriptor_ = -1;
};

namespace FXFile {

inline constexpr std::uint32_t kGenericRead = 0x80000000;
inline constexpr std::uint32_t kGenericWrite = 0x40000000;
inline constexpr std::uint32_t kShareRead = 1;     // Linux has no mandatory sharing: accepted, no effect
inline constexpr std::uint32_t kCreateAlways = 2;  // create, or truncate what is there
inline constexpr std::uint32_t kOpenExisting = 3;  // fail when it is not there
inline constexpr std::uint32_t kAttributeNormal = 128;

// Opens `path`; on success `handle` owns the file. Security attributes and template have no counterpart on
// Linux and must be null.
LQ_EXPORT CWmError LQCreateFile(const std::string& path, std::uint32_t access, std::uint32_t share,
                                const void* securityAttributes, std::uint32_t disposition,
                                std::uint32_t attributes, const void* templateFile, auto_handle& handle);

// Reads at most `size` bytes; `bytesRead` 0 means end of file.
LQ_EXPORT CWmError LQReadFile(const auto_handle& handle, void* buffer, std::uint32_t size,
                              std::uint32_t& bytesRead);

// Writes `size` bytes at the end of the file: all of them, or on an error none that stay, as far as the file
// can be cut back.
LQ_EXPORT CWmError LQWriteFile(const auto_handle& handle, const void* data, std::uint64_t size,
                               std::uint64_t& bytesWritten);

// Deletes the files directly in `directory` whose names match the shell pattern `pattern`. Regular files
// only: sub-directories stay with all that is in them, and so do links, wherever they lead. Every matching
// file is tried; the first fault is what is returned, and a directory that is not there is one. There are no
// flags: the number must be 0.
LQ_EXPORT CWmError DeleteMatchingFiles(const std::string& directory, const std::string& pattern,
                                       std::uint32_t flags);

}  // namespace FXFile

namespace FXPath {

// Joins `name` to `directory` in place, with one "/" between them; an empty directory gives the bare name.
// False when the result would be longer than the system allows; `directory` is then unchanged.
LQ_EXPORT bool Append(std::string& directory, const std::string& name);

}  // namespace FXPath
