// Files as a whole: read at once, and replaced at once.
//
// Stateless, any thread. Every fault is a CWmError that names the file.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"

namespace programs {

CWmError readWholeFile(const std::string& path, std::string& text);

// Makes `text` the file's contents, with mode 0600. Whoever reads meanwhile sees the old contents or the new,
// never a part, and after a power cut it is either of them. A link, a device or a directory is left alone.
CWmError replaceWholeFile(const std::string& path, const std::string& text);

}  // namespace programs
