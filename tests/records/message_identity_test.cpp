// What a message class is to everybody else, servers of other versions included: its name and number, and the
// name, number and slot of each field.
#include <gtest/gtest.h>

#include "lqregistry/App.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/OBGui.h"

namespace {

std::string identityOf(const CNMessageBase& message) {
  const unsigned long tag = message.getTagID();
  std::string text =
      std::string(message.className()) + " " + std::to_string(tag >> 16) + "," + std::to_string(tag & 0xffff);
  for (const FieldInfo& field : message.fieldList())
    text +=
        std::string(" ") + field.name + ":" + std::to_string(field.number) + "," + std::to_string(field.slot);
  return text;
}

TEST(MessageIdentity, OfEveryClassIsFixed) {
  const std::string record =
      " valueName:1,1 valueType:2,5 value:3,9 keyPath:4,13 deleteFlag:5,17 enabledFlag:6,18 encryptedValue:";
  EXPECT_EQ(identityOf(OBGui::RegistryKeyInfo()),
            "OBGui.RegistryKeyInfo 13,300" + record + "7,19 association:9,24");
  EXPECT_EQ(identityOf(App::RegistryKeyInfo()),
            "App.RegistryKeyInfo 30,300" + record + "8,20 association:10,25");
  EXPECT_EQ(identityOf(OBGui::RegistryTaskResp()),
            "OBGui.RegistryTaskResp 13,575 taskStatus:1,1 client:2,2 keys:3,3");
  EXPECT_EQ(identityOf(OBGui::RegistryTaskReq()), "OBGui.RegistryTaskReq 13,452 client:1,1");
  EXPECT_EQ(identityOf(OBGui::RegistryStaticKeyReq()), "OBGui.RegistryStaticKeyReq 13,46");
  EXPECT_EQ(identityOf(App::KeyInfoList()), "App.KeyInfoList 30,377 keys:1,1");
  EXPECT_EQ(identityOf(App::FetchClientRegistry()), "App.FetchClientRegistry 30,505 keyInfo:1,1");
  EXPECT_EQ(identityOf(App::AppCommunicationMessageReq()),
            "App.AppCommunicationMessageReq 30,364 messageType:1,1 payload:2,2");
  EXPECT_EQ(identityOf(App::AppCommunicationMessageResp()),
            "App.AppCommunicationMessageResp 30,365 payload:1,1");
  EXPECT_EQ(identityOf(App::GenericResp()), "App.GenericResp 30,1595 errorCode:1,1 errorText:2,2");
  EXPECT_EQ(identityOf(LqEntities::ClientEntity()), "LqEntities.Client 2,1 clientId:0,0");
  EXPECT_EQ(identityOf(LqEntities::Association()), "LqEntities.Association 2,2 id:0,0");
  EXPECT_EQ(OBGui::kTaskSuccess, 3);
  EXPECT_EQ(OBGui::kTaskFailed, 1);
  EXPECT_EQ(OBGui::kTaskUpload, 2);
}

// Where nobody has built a message yet, a class is known by its name once its namespace is registered.
TEST(MessageIdentity, AClassIsKnownOnceItsNamespaceIsRegistered) {
  const std::pair<void (*)(), const char*> namespaces[] = {
      {LqEntities::RegisterSubsystem, "<LqEntities.Association id=\"1\"/>"},
      {OBGui::RegisterSubsystem, "<OBGui.RegistryStaticKeyReq/>"},
      {App::RegisterSubsystem, "<App.GenericResp/>"}};
  for (const auto& [registerNamespace, text] : namespaces) {
    std::unique_ptr<CNMessageBase> message;
    EXPECT_TRUE(CNMessageBase::fromText(text, message).IsError()) << text;
    registerNamespace();
    EXPECT_FALSE(CNMessageBase::fromText(text, message).IsError()) << text;
  }
}

}  // namespace
