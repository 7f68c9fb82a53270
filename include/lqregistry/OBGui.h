// The registry-task messages: one registry value as exchanged with the server, and the batches, requests and
// acknowledgements that carry them. Class and field numbers are those that both sides agree on.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/LqEntities.h"
#include "lqregistry/pstring.h"

namespace OBGui {

// Namespace of the registry-task classes.
inline constexpr int kNamespace = 13;

// RegistryTaskResp::taskStatus.
inline constexpr std::int64_t kTaskFailed = 1;   // the batch failed, or no batch arrived
inline constexpr std::int64_t kTaskUpload = 2;   // the message is a key upload
inline constexpr std::int64_t kTaskSuccess = 3;  // the batch was applied

// The taskStatus for what could be done as the other side wants it, or not.
constexpr std::int64_t taskStatusOf(bool isDone) {
  return isDone ? kTaskSuccess : kTaskFailed;
}

// One registry value.
struct RegistryKeyInfo : MessageClass<RegistryKeyInfo, kNamespace, 300> {
  static constexpr const char* kClassName = "OBGui.RegistryKeyInfo";
  Field<std::string, 1, 1> valueName;      // inside the key; for a "KEY" record the name of a sub-key
  Field<std::string, 2, 5> valueType;      // type word: "STRING", "KEY", "ENCRYPTED", ...
  Field<std::string, 3, 9> value;          // as plain text
  Field<std::string, 4, 13> keyPath;       // of the key that holds the value
  Field<std::int64_t, 5, 17> deleteFlag;   // 1: to be removed from the client
  Field<std::int64_t, 6, 18> enabledFlag;  // 0: not wanted on the client, removed as well
  Field<pstring, 7, 19> encryptedValue;    // the value of an "ENCRYPTED" record
  Field<LqEntities::Association, 9, 24> association;

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

// A batch of key records: the server's reply, the client's acknowledgement and upload, the cache file.
struct RegistryTaskResp : MessageClass<RegistryTaskResp, kNamespace, 575> {
  static constexpr const char* kClassName = "OBGui.RegistryTaskResp";
  Field<std::int64_t, 1, 1> taskStatus;
  Field<LqEntities::ClientEntity, 2, 2> client;
  Field<KeyList, 3, 3> keys;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&RegistryTaskResp::taskStatus>("taskStatus"),
                                         field<&RegistryTaskResp::client>("client"),
                                         field<&RegistryTaskResp::keys>("keys")};
    return list;
  }
};

// The client's request for its key batch.
struct RegistryTaskReq : MessageClass<RegistryTaskReq, kNamespace, 452> {
  static constexpr const char* kClassName = "OBGui.RegistryTaskReq";
  Field<LqEntities::ClientEntity, 1, 1> client;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&RegistryTaskReq::client>("client")};
    return list;
  }
};

// The client's request for the static key list; it has no field that the client sets.
struct RegistryStaticKeyReq : MessageClass<RegistryStaticKeyReq, kNamespace, 46> {
  static constexpr const char* kClassName = "OBGui.RegistryStaticKeyReq";

  static std::span<const FieldInfo> fields() { return {}; }
};

// Makes the classes known to the message library; a second time is harmless.
LQ_EXPORT void RegisterSubsystem();

}  // namespace OBGui
