// A host module that goes wrong: a verdict that never comes, and a change callback that throws unless told
// "well".
#include <chrono>
#include <stdexcept>
#include <thread>

#include "lqregistry/LqExport.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqVerdicts.h"

namespace {

LqVerdict hang(const OBGui::RegistryKeyInfo& /*key*/) {
  while (true) std::this_thread::sleep_for(std::chrono::hours(1));
}

void fail(OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param): as callbacks are
  if (key.value.get() != "well") throw std::runtime_error("no such mode: " + key.value.get());
}

}  // namespace

extern "C" LQ_EXPORT int LqHostModule_Register() {
  LqVerdicts::Register("failing module", "Failing", "sHANGS", &hang);
  LqRegistryChangeMgr::GetInstance()->Register("Failing", "sTHROWS", &fail);
  return 0;
}
