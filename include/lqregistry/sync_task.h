// The registry synchronisation's entry points, for the host to find by their plain names.
//
// Each is stateless: it finds the instance name, builds a client for it, runs one pass and lets it go. They
// may be called from any thread, each call with a client of its own.
#pragma once

#include <string>

#include "lqregistry/LqExport.h"
#include "lqregistry/LqPeriodicTaskStatus.h"
#include "lqregistry/OBGui.h"

// Size of the buffers that receive instance names and directories, their NUL included.
inline constexpr std::size_t kInstanceNameBuffer = 1024;

// Results of RegKeyGetVMName.
inline constexpr unsigned kInstanceNameFound = 4;
inline constexpr unsigned kInstanceNameMissing = 5;

extern "C" {

// Task callback: records the time as the task's last run and returns 0. No synchronisation at service start.
LQ_EXPORT int RegistryDownload_OnStart(LqPeriodicTaskStatus* status);

// Task callback: one synchronisation if it is enabled ("EventManager"/"bEnableRegistrySync") and the client
// has finished joining. 0, or -1 when a synchronisation was attempted and failed.
LQ_EXPORT int RegistryDownload_OnTimer(LqPeriodicTaskStatus* status);

// One full download pass; true on success.
LQ_EXPORT bool fnLqSyncRegistryKeysInfo();

// Applies `keys`, which are changed in place, and answers the server as client `clientId`; true when all were
// applied. A null list is refused.
LQ_EXPORT bool updateRegistryKeys(OBGui::KeyList* keys, unsigned clientId);

// Names the server-side library and function that serve the key download.
LQ_EXPORT void PrepareLqSyncRegistryKeys(std::string& libraryName, std::string& functionName);

// Copies the instance name (the variable VELMOR_VM, else the current instance) into `name`, a buffer of at
// least kInstanceNameBuffer characters. kInstanceNameFound, or kInstanceNameMissing with `name` unchanged.
LQ_EXPORT unsigned RegKeyGetVMName(char* name);

// Writes the path of the command log into `path`, a buffer of at least kInstanceNameBuffer + 11 characters,
// and returns its length. The other two arguments are ignored.
LQ_EXPORT int GetModuleFileName(const char* module, char* path, unsigned size);

}  // extern "C"
