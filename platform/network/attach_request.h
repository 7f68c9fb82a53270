// What a caller asks for when it attaches, as the payload of the attach request frame.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "lqregistry/CNMessageBase.h"

inline constexpr std::int64_t kAttachProtocolVersion = 1;

// Longest library, entry and caller name.
inline constexpr std::size_t kMaxAttachNameBytes = 256;

// Namespace 1 is the session's own.
struct AttachRequest : MessageClass<AttachRequest, 1, 1> {
  static constexpr const char* kClassName = "Session.AttachRequest";
  Field<std::int64_t, 1, 1> version;
  Field<std::string, 2, 2> library;
  Field<std::string, 3, 3> entry;
  Field<std::string, 4, 4> caller;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&AttachRequest::version>("version"), field<&AttachRequest::library>("library"),
        field<&AttachRequest::entry>("entry"), field<&AttachRequest::caller>("caller")};
    return list;
  }

  bool namesFit() const {
    return library->size() <= kMaxAttachNameBytes && entry->size() <= kMaxAttachNameBytes &&
           caller->size() <= kMaxAttachNameBytes;
  }
};
