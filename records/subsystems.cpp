// Registers the message classes of each namespace with the message library, and takes them out again when the
// library that holds them is unloaded.
#include "lqregistry/App.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/OBGui.h"
#include "records/host_report.h"

namespace {

template <class... M>
struct Subsystem {
  ~Subsystem() { unregisterMessageClasses<M...>(); }
  void registerClasses() const { registerMessageClasses<M...>(); }
};

const Subsystem<LqEntities::ClientEntity, LqEntities::Association> entities;
const Subsystem<OBGui::RegistryKeyInfo, OBGui::RegistryTaskResp, OBGui::RegistryTaskReq,
                OBGui::RegistryStaticKeyReq>
    registryTasks;
const Subsystem<App::RegistryKeyInfo, App::KeyInfoList, App::FetchClientRegistry,
                App::AppCommunicationMessageReq, App::AppCommunicationMessageResp, App::GenericResp>
    applicationMessages;
const Subsystem<HostReport::Problem, HostReport::Drift, HostReport::Verdict, HostReport::Memory,
                HostReport::Report, HostReport::Origin, HostReport::Revision, HostReport::Answer,
                HostReport::SyncNow>
    hostReports;

}  // namespace

void LqEntities::RegisterSubsystem() {
  entities.registerClasses();
}

void OBGui::RegisterSubsystem() {
  registryTasks.registerClasses();
}

void App::RegisterSubsystem() {
  applicationMessages.registerClasses();
}

void HostReport::RegisterSubsystem() {
  hostReports.registerClasses();
}
