// The entity sub-records that key records and registry-task messages refer to.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "lqregistry/CNMessageBase.h"

namespace LqEntities {

// Namespace of the entity classes.
inline constexpr int kNamespace = 2;

// A client of the management server.
struct ClientEntity : MessageClass<ClientEntity, kNamespace, 1> {
  static constexpr const char* kClassName = "LqEntities.Client";
  Field<std::int64_t, 0, 0> clientId;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&ClientEntity::clientId>("clientId")};
    return list;
  }
};

// The entity that a key record is associated with. Only its id matters here; 0 stands for no entity.
struct Association : MessageClass<Association, kNamespace, 2> {
  static constexpr const char* kClassName = "LqEntities.Association";
  Field<std::int64_t, 0, 0> id;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Association::id>("id")};
    return list;
  }
};

// Makes the classes known to the message library; a second time is harmless.
LQ_EXPORT void RegisterSubsystem();

}  // namespace LqEntities
