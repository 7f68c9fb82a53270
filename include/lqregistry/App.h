// The application messages: key records as other modules of the host hand them over, the server's fetch of
// named values, and generic messages for registered handlers.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/pstring.h"

namespace App {

// Namespace of the application classes.
inline constexpr int kNamespace = 30;

// One registry value; the fields mean what those of OBGui::RegistryKeyInfo mean.
struct RegistryKeyInfo : MessageClass<RegistryKeyInfo, kNamespace, 300> {
  static constexpr const char* kClassName = "App.RegistryKeyInfo";
  Field<std::string, 1, 1> valueName;
  Field<std::string, 2, 5> valueType;
  Field<std::string, 3, 9> value;
  Field<std::string, 4, 13> keyPath;
  Field<std::int64_t, 5, 17> deleteFlag;
  Field<std::int64_t, 6, 18> enabledFlag;
  Field<pstring, 8, 20> encryptedValue;
  Field<LqEntities::Association, 10, 25> association;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&RegistryKeyInfo::valueName>("valueName"),
                                         field<&RegistryKeyInfo::valueType>("valueType"),
                                         field<&RegistryKeyInfo::value>("value"),
                                         field<&RegistryKeyInfo::keyPath>("keyPath"),
                                         field<&RegistryKeyInfo::deleteFlag>("deleteFlag"),
                                         field<&RegistryKeyInfo::enabledFlag>("enabledFlag"),
                                         field<&RegistryKeyInfo::encryptedValue>("encryptedValue"),
                                         field<&RegistryKeyInfo::association>("association")};
    return list;
  }
};

using KeyList = std::vector<RegistryKeyInfo>;

// A list of key records as one sub-record.
struct KeyInfoList : MessageClass<KeyInfoList, kNamespace, 377> {
  static constexpr const char* kClassName = "App.KeyInfoList";
  Field<KeyList, 1, 1> keys;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&KeyInfoList::keys>("keys")};
    return list;
  }
};

// The server's fetch of named values, and the client's answer to it with the values filled in.
struct FetchClientRegistry : MessageClass<FetchClientRegistry, kNamespace, 505> {
  static constexpr const char* kClassName = "App.FetchClientRegistry";
  Field<KeyInfoList, 1, 1> keyInfo;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&FetchClientRegistry::keyInfo>("keyInfo")};
    return list;
  }
};

// An application message of the server, for the handler registered for its type.
struct AppCommunicationMessageReq : MessageClass<AppCommunicationMessageReq, kNamespace, 364> {
  static constexpr const char* kClassName = "App.AppCommunicationMessageReq";
  Field<std::int64_t, 1, 1> messageType;
  Field<std::string, 2, 2> payload;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&AppCommunicationMessageReq::messageType>("messageType"),
                                         field<&AppCommunicationMessageReq::payload>("payload")};
    return list;
  }
};

// The handler's answer.
struct AppCommunicationMessageResp : MessageClass<AppCommunicationMessageResp, kNamespace, 365> {
  static constexpr const char* kClassName = "App.AppCommunicationMessageResp";
  Field<std::string, 1, 1> payload;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&AppCommunicationMessageResp::payload>("payload")};
    return list;
  }
};

// GenericResp::errorCode.
inline constexpr std::int64_t kErrorNotImplemented = 1;  // no handler is registered for the type
inline constexpr std::int64_t kErrorHandlerThrew = 2;    // the handler ended with an exception

// An error as an answer: carried, as text, in the payload of an AppCommunicationMessageResp.
struct GenericResp : MessageClass<GenericResp, kNamespace, 1595> {
  static constexpr const char* kClassName = "App.GenericResp";
  Field<std::int64_t, 1, 1> errorCode;
  Field<std::string, 2, 2> errorText;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&GenericResp::errorCode>("errorCode"),
                                         field<&GenericResp::errorText>("errorText")};
    return list;
  }
};

// Makes the classes known to the message library; a second time is harmless.
LQ_EXPORT void RegisterSubsystem();

}  // namespace App
