// Files of the store's directory: read whole, replaced at once, and appended to by lines.
//
// Stateless, any thread. Every fault is a CWmError that names the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/FXFile.h"

namespace file_access {

bool exists(const std::string& path);

inline CWmError readWhole(const std::string& path, std::string& text) {
  return FXFile::ReadContents(path, text);
}

// A file that holds one word, as an editor leaves it.
CWmError readWord(const std::string& path, std::string& word);

// The file's last `bytes` bytes, or all of it when it is shorter.
CWmError readEnd(const std::string& path, std::size_t bytes, std::string& text);

// Makes `text` the file's contents at once (FXFile::ReplaceContents); on an error the old contents stay.
inline CWmError replace(const std::string& path, const std::string& text) {
  return FXFile::ReplaceContents(path, text);
}

// For a file that must not be there yet. It is on disk then, with mode 0600.
CWmError create(const std::string& path, const std::string& text);

// The same for many files, by their paths, in one directory: all are written, then all are put on disk at
// once, which takes a fraction of the time. Files that are there are replaced, links are not followed.
CWmError replaceAll(const std::string& directory, const std::map<std::string, std::string>& files);

// Standard input up to its end; an error when it holds more than `limit` bytes.
CWmError readInput(std::size_t limit, std::string& text);

// How big a file is, and when it was last replaced, in seconds since the epoch.
CWmError status(const std::string& path, std::uintmax_t& bytes, std::time_t& time);

// Appends `line` and a newline. Lines of several writers do not mix, and a line that cannot be written whole
// leaves the file as it was.
CWmError appendLine(const std::string& path, const std::string& line);

// Makes a directory of mode 0700, and its parents, exist.
CWmError makeDirectory(const std::string& path);

}  // namespace file_access
