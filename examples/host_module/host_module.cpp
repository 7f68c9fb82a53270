// A host module to look at and to try things with: logs each change of Machine/Settings nTraceLevel, and
// answers application messages of type 7 with a greeting.
#include <string>

#include "lqregistry/LqCommunicationManagerClnt.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/ObDebug.h"

namespace {

constexpr int kGreetingType = 7;

// By value, as callbacks are.
void onTraceLevel(OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param)
  ObEvent().Debug("SampleModule::onTraceLevel", "nTraceLevel is [%s] now", key.value->c_str());
}

int greet(std::string& payload) {
  payload = "hello, " + payload;
  return 0;
}

}  // namespace

extern "C" LQ_EXPORT int LqHostModule_Register() {
  LqRegistryChangeMgr::GetInstance()->Register("Machine/Settings", "nTraceLevel", &onTraceLevel);
  LqCommunicationManagerClnt::registerCallBackFunction(kGreetingType, &greet);
  return 0;
}
