// The least host service: loads the library and, with an argument, runs its synchronisation task once.
#include <dlfcn.h>

#include <cstdio>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqPeriodicTaskStatus.h"

int main(int argc, char**) {
  LQPI_Focus::setFocus("Instance001");
  void* const library = dlopen("libLqRegistryClnt.so.0", RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  if (argc < 2) return 0;
  const auto task =
      reinterpret_cast<int (*)(LqPeriodicTaskStatus*)>(dlsym(library, "RegistryDownload_OnTimer"));
  LqPeriodicTaskStatus status;
  return task(&status) == 0 ? 0 : 1;
}
