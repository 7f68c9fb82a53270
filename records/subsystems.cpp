// Registers the message classes of each namespace with the message library.
#include "records/App.h"
#include "records/LqEntities.h"
#include "records/OBGui.h"

void LqEntities::RegisterSubsystem() {
  registerMessageClasses<ClientEntity, Association>();
}

void OBGui::RegisterSubsystem() {
  registerMessageClasses<RegistryKeyInfo, RegistryTaskResp, RegistryTaskReq, RegistryStaticKeyReq>();
}

void App::RegisterSubsystem() {
  registerMessageClasses<RegistryKeyInfo>();
}
