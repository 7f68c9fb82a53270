// What the files of an exported folder are called (store_folder.h).
#pragma once

namespace store_folder {

inline constexpr const char* kMarkFile = "overhub-folder.txt";
// The line of it that tells how the others are written.
inline constexpr const char* kFormat = "\nformat 1\n";
inline constexpr const char* kAllFile = "all.txt";
inline constexpr const char* kStaticFile = "static.txt";
inline constexpr const char* kClientsFile = "clients.txt";
inline constexpr const char* kGroups = "groups/";
inline constexpr const char* kMachines = "machines/";
inline constexpr const char* kSuffix = ".txt";

}  // namespace store_folder
