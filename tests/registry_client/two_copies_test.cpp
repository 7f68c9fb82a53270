// What is the library's own and what it shares with the program: exported data, and a second copy of both
// libraries in one process, as a host has it that runs while its libraries are replaced.
#include <dlfcn.h>

#include <cstdlib>

#include "lqregistry/LqCommunicationManagerClnt.h"
#include "lqregistry/LqPeriodicTaskStatus.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/sync_task.h"
#include "tests/support/product_fixture.h"

namespace {

void ignoring(OBGui::RegistryKeyInfo) {}
int praising(std::string& payload) {
  payload = "well done, " + payload;
  return 0;
}

class SharedLibraries : public ProductTest {
 protected:
  // A second copy of a library, from a folder of its own.
  void* secondCopy(const std::string& name) const {
    const std::string copy = dir_ / name;
    std::filesystem::copy_file(std::string(LQ_LIB_DIR "/") + name, copy);
    return dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  template <class Function>
  static Function* find(void* library, const std::string& name) {
    return reinterpret_cast<Function*>(dlsym(library, name.c_str()));
  }
  // Uses both copies, and ends the process with the number of what went wrong.
  void useBoth() const;
};

void SharedLibraries::useBoth() const {
  void* const platform = secondCopy("libLqPlatform.so");
  void* const product = secondCopy("libLqRegistryClnt.so");
  if (platform == nullptr || product == nullptr) std::exit(2);

  // The second platform has a registry of its own; this one's stays where it is.
  const std::string text = "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";  // as names spell it
  setValue("Machine", "sOfTheFirst", "x");
  find<void(const std::string&)>(platform, "_ZN10lqregistry7UseFileE" + text)(dir_ / "second.db");
  LQPlatformInfo info;
  const auto create =
      find<bool(LQPlatformInfo&, const std::string&)>(platform, "_ZN14LQPlatformInfo12createRegKeyE" + text);
  if (!create(info, "SOFTWARE/Second") || !std::filesystem::exists(dir_ / "second.db")) std::exit(3);
  if (lqregistry::File() != registryFile_ || valueOf("Machine", "sOfTheFirst") != "x") std::exit(4);

  // Each product has its callbacks, its pool, and a pass to run.
  LqRegistryChangeMgr* const first = LqRegistryChangeMgr::GetInstance();
  LqRegistryChangeMgr* const second =
      find<LqRegistryChangeMgr*()>(product, "_ZN19LqRegistryChangeMgr11GetInstanceEv")();
  first->Register("Machine/Settings", "nTraceLevel", &ignoring);
  const auto isRegistered = find<bool(const LqRegistryChangeMgr&, const std::string&, const std::string&)>(
      product, "_ZNK19LqRegistryChangeMgr20IsCallBackRegisteredE" + text + "S7_");
  if (second == first || isRegistered(*second, "Machine/Settings", "nTraceLevel")) std::exit(5);
  LqPeriodicTaskStatus status;
  if (RegistryDownload_OnTimer(&status) != 0) std::exit(6);
  if (find<int(LqPeriodicTaskStatus*)>(product, "RegistryDownload_OnTimer")(&status) != 0) std::exit(7);
  std::exit(0);
}

TEST_F(SharedLibraries, SeeWhatTheProgramWritesIntoTheirData) {
  LqRegistryChangeMgr::callBackMaps[{"Machine/Written", "sDirectly"}] = &ignoring;
  EXPECT_TRUE(LqRegistryChangeMgr::GetInstance()->IsCallBackRegistered("Machine/Written", "sDirectly"));

  LqCommunicationManagerClnt::callBackFunctionMap[7] = &praising;
  LqCommunicationManagerClnt client("");
  App::AppCommunicationMessageReq request;
  request.messageType = 7;
  request.payload = std::string("world");
  client.serverRequestHandler(request);
  EXPECT_EQ(client.serverRequest.payload.get(), "well done, world");
}

// The end of the process is part of it: statics that two copies share are destroyed twice. Named so that it
// runs before any test has started a thread.
using SharedLibrariesDeathTest = SharedLibraries;
TEST_F(SharedLibrariesDeathTest, HaveStaticsOfTheirOwnInEachCopy) {
  EXPECT_EXIT(useBoth(), testing::ExitedWithCode(0), "");
}

}  // namespace
