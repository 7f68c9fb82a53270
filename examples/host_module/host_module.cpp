// A host module to look at and to try things with: logs each change of Machine/Settings nTraceLevel, refuses
// levels that there are not, and answers application messages of type 7 with a greeting.
#include <cstdlib>
#include <string>

#include "lqregistry/LqCommunicationManagerClnt.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqVerdicts.h"
#include "lqregistry/ObDebug.h"

namespace {

constexpr int kGreetingType = 7;
constexpr long kMostDetail = 10;

// By value, as callbacks are.
void onTraceLevel(OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param)
  ObEvent().Debug("SampleModule::onTraceLevel", "nTraceLevel is [%s] now", key.value->c_str());
}

// Asked after onTraceLevel has run; the host reports the answer to the server.
LqVerdict judgeTraceLevel(const OBGui::RegistryKeyInfo& key) {
  const bool isRemoved = key.deleteFlag == 1 || key.enabledFlag == 0;
  if (isRemoved) return LqVerdict::inEffect("the level is the default's again");
  char* end = nullptr;
  const long level = std::strtol(key.value->c_str(), &end, 10);
  if (*end == '\0' && level >= 0 && level <= kMostDetail) return LqVerdict::inEffect();
  return LqVerdict::refused("trace levels are 0 to " + std::to_string(kMostDetail) + ", not " +
                            key.value.get());
}

int greet(std::string& payload) {
  payload = "hello, " + payload;
  return 0;
}

}  // namespace

extern "C" LQ_EXPORT int LqHostModule_Register() {
  LqRegistryChangeMgr::GetInstance()->Register("Machine/Settings", "nTraceLevel", &onTraceLevel);
  LqVerdicts::Register("sample module", "Machine/Settings", "nTraceLevel", &judgeTraceLevel);
  LqCommunicationManagerClnt::registerCallBackFunction(kGreetingType, &greet);
  return 0;
}
