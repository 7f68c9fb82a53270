// FXFile, FXPath and auto_handle: file access with the access, share and disposition codes of the platform's
// file layer, mapped to what they mean on Linux; files that are replaced as a whole; and the question of who
// else could have written a file.
//
// Stateless, callable from any thread; a handle is used by one thread at a time. Nothing is thrown; every
// fault is a CWmError that names the file. Only regular files are opened: a pipe or a device in a file's
// place is an error and is never waited for. A real platform library provides the same calls; files created
// here get mode 0600, since what the product writes may hold settings that are nobody else's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"

class FileReplacement;

// Closes the file when it goes out of scope.
class LQ_EXPORT auto_handle {
 public:
  auto_handle() = default;
  explicit auto_handle(int descriptor) : descriptor_(descriptor) {}
  // For a file that is written beside the one that it is to replace (kCreateAlways).
  auto_handle(int descriptor, std::shared_ptr<FileReplacement> replacement)
      : descriptor_(descriptor), replacement_(std::move(replacement)) {}
  ~auto_handle() { reset(); }
  auto_handle(auto_handle&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)), replacement_(std::move(other.replacement_)) {}
  auto_handle& operator=(auto_handle&& other) noexcept {
    if (this == &other) return *this;
    reset();
    descriptor_ = std::exchange(other.descriptor_, -1);
    replacement_ = std::move(other.replacement_);
    return *this;
  }

  bool isValid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  // Hands the descriptor to the caller, who closes it.
  int release() {
    replacement_.reset();
    return std::exchange(descriptor_, -1);
  }
  void reset(int descriptor = -1);
  // Null for a file that is written where it is.
  FileReplacement* replacement() const { return replacement_.get(); }

 private:
  int descriptor_ = -1;
  std::shared_ptr<FileReplacement> replacement_;
};

namespace FXFile {

inline constexpr std::uint32_t kGenericRead = 0x80000000;
inline constexpr std::uint32_t kGenericWrite = 0x40000000;
inline constexpr std::uint32_t kShareRead = 1;     // Linux has no mandatory sharing: accepted, no effect
inline constexpr std::uint32_t kCreateAlways = 2;  // a new file, in place of what is there
inline constexpr std::uint32_t kOpenExisting = 3;  // fail when it is not there
inline constexpr std::uint32_t kAttributeNormal = 128;

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// Opens `path`; on success `handle` owns the file. Security attributes and template have no counterpart on
// Linux and must be null.
//
// kCreateAlways needs kGenericWrite, and the file is written with one LQWriteFile: until that has succeeded,
// `path` holds what it held before, so a process that is killed leaves the old text or the new one, never a
// part. A handle that is closed without a write changes nothing. What killed processes left beside the file
// is removed. A link in the file's place is refused: it would be replaced instead of what it leads to.
LQ_EXPORT CWmError LQCreateFile(const std::string& path, std::uint32_t access, std::uint32_t share,
                                const void* securityAttributes, std::uint32_t disposition,
                                std::uint32_t attributes, const void* templateFile, auto_handle& handle);

// Reads at most `size` bytes; `bytesRead` 0 means end of file.
LQ_EXPORT CWmError LQReadFile(const auto_handle& handle, void* buffer, std::uint32_t size,
                              std::uint32_t& bytesRead);

// Writes `size` bytes at the handle's position: all of them, or on an error none that stay, as far as the
// file can be cut back. What was in the file before stays. For a handle of kCreateAlways, success means that
// the new text is in place and on disk, and an error that the file is empty.
LQ_EXPORT CWmError LQWriteFile(const auto_handle& handle, const void* data, std::uint64_t size,
                               std::uint64_t& bytesWritten);

// Reads the rest of the file, or of the pipe, into `text`; an error when it is more than `limit` bytes.
LQ_EXPORT CWmError ReadToEnd(const auto_handle& handle, std::string& text, std::size_t limit = kNoLimit);

// Reads the file's contents into `text`; an error when they are more than `limit` bytes.
LQ_EXPORT CWmError ReadContents(const std::string& path, std::string& text, std::size_t limit = kNoLimit);

// Makes `text` the file's contents, with mode 0600. Whoever reads meanwhile sees the old contents or the new,
// never a part, and after a power cut it is either of them. On an error the old contents stay. A link, a
// device or a directory is left alone.
LQ_EXPORT CWmError ReplaceContents(const std::string& path, std::string_view text);

// Adds `text` to the end of the file, which is created if need be. Those who append with this call, in any
// process, do so one after the other; on an error what the file held before is all that stays.
LQ_EXPORT CWmError AppendContents(const std::string& path, std::string_view text);

// An error when anybody but root and this process's effective user could write `path`, or put something else
// in its place: looked at are the file, every link on the way, its directory and all directories above. One
// that others may write is tolerated only above the file's own directory, and only if it is sticky, as /tmp
// is. The error says which one it is and what to do. A directory is judged like the directory of a file, and
// what is not there by its directories.
LQ_EXPORT CWmError CheckTrusted(const std::string& path);

// Deletes the files directly in `directory` whose names match the shell pattern `pattern`. Regular files
// only: sub-directories stay with all that is in them, and so do links, wherever they lead. Every matching
// file is tried; the first fault is returned, and a directory that is not there is one. There are no flags:
// the number must be 0.
LQ_EXPORT CWmError DeleteMatchingFiles(const std::string& directory, const std::string& pattern,
                                       std::uint32_t flags);

}  // namespace FXFile

namespace FXPath {

// Joins `name` to `directory` in place, with one "/" between them; an empty directory gives the bare name.
// False when the result would be longer than the system allows; `directory` is then unchanged.
LQ_EXPORT bool Append(std::string& directory, const std::string& name);

}  // namespace FXPath
