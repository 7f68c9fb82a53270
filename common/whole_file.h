// Files as a whole, under the names that the programs use: read at once, and replaced at once.
//
// Stateless, any thread. Every fault is a CWmError that names the file.
#pragma once

#include <string>

#include "lqregistry/FXFile.h"

namespace programs {

inline CWmError readWholeFile(const std::string& path, std::string& text) {
  return FXFile::ReadContents(path, text);
}

// On an error the old contents stay.
inline CWmError replaceWholeFile(const std::string& path, const std::string& text) {
  return FXFile::ReplaceContents(path, text);
}

}  // namespace programs
