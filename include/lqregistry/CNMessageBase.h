// CNMessageBase, Field and MessageClass: the platform's messages.
//
// A message class is a struct with typed fields that lists them once:
//
//   struct Ping : MessageClass<Ping, 40, 1> {                     // namespace 40, message 1
//     static constexpr const char* kClassName = "Demo.Ping";
//     Field<std::string, 1, 1> text;                              // field number 1, slot 1
//     Field<std::int64_t, 2, 5> count;
//     static std::span<const FieldInfo> fields() {
//       static constexpr FieldInfo list[] = {field<&Ping::text>("text"), field<&Ping::count>("count")};
//       return list;
//     }
//   };
//
// Serialising, parsing and comparing follow from that list. A field knows whether it was set; unset, it reads
// as empty or 0. Field types: std::string, std::int64_t, pstring, another message (a sub-record), and a
// std::vector of messages.
//
// Text form: XML, one element per message named after its class, scalar fields as attributes, sub-records and
// lists as child elements, set fields only. Bytes that XML cannot carry are written as \xHH and a backslash
// as \\, so every byte string without NUL reads back as it was (docs/wire.md).
//
// Messages are values, used by one thread at a time; the table of classes may be used from any thread. A real
// platform library provides generated classes with the same fields, tags and text round trip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/pstring.h"

struct FieldInfo;

class LQ_EXPORT CNMessageBase {
 public:
  CNMessageBase() = default;
  CNMessageBase(const CNMessageBase&) = default;
  CNMessageBase(CNMessageBase&&) = default;
  CNMessageBase& operator=(const CNMessageBase&) = default;
  CNMessageBase& operator=(CNMessageBase&&) = default;
  virtual ~CNMessageBase() = default;

  // Prepares the library; 0 on success. May be called any number of times.
  static int Initialize() { return 0; }

  // The class's tag: equal for two messages exactly when they are of the same class.
  virtual unsigned long getTagID() const = 0;
  virtual const char* className() const = 0;
  virtual std::span<const FieldInfo> fieldList() const = 0;

  // Writes the text form to `text`. Protected strings are written as their V8 text, or in clear when
  // `revealProtected`; that form is for encrypted sessions only. 0 on success; non-zero when a protected
  // string could not be protected.
  int serialize(std::string& text, bool revealProtected) const;

  // The same, protected strings as V8 text, laid out over indented lines; it reads back the same.
  int serializeForPeople(std::string& text) const;

  // Replaces this message by what `text` holds; 0 on success. Non-zero, with this message unchanged and the
  // reason in `why` if that is not null, when the text is broken or of another or an unregistered class.
  int unserialize(const std::string& text, std::string* why = nullptr);

  // Whether unserialize would read the text, given the memory, and how many records its lists hold. Builds
  // nothing that lasts and opens no secret.
  bool isReadable(std::string text, std::size_t& records) const;

  // Same class, same fields set, same values.
  bool equals(const CNMessageBase& other) const;

  // Builds the message that `text` holds, of whichever registered class (registerMessageClass).
  static CWmError fromText(const std::string& text, std::unique_ptr<CNMessageBase>& message);
  // The same without a copy of the text, whose bytes are used up: only their wiping is left to do.
  static CWmError fromBuffer(std::string& text, std::unique_ptr<CNMessageBase>& message);

 private:
  // Takes over the fields of a message of the same class.
  virtual void assign(CNMessageBase&& other) = 0;
};

// Bound on how deep sub-records and lists may nest in a text.
inline constexpr int kMaxMessageDepth = 16;

// Bounds on what a text is read into. A machine has a few thousand settings; more than five times the largest
// batch ever planned is not a batch. Reading takes, the text included, at most so many times the text's size
// beyond an allowance for small ones: a text of many records with hardly anything in them is refused.
inline constexpr std::size_t kMaxMessageRecords = 500'000;
inline constexpr std::size_t kMaxReadFactor = 6;
inline constexpr std::size_t kReadAllowanceBytes = 16U << 20;

template <class T, int Number, int Slot>
class Field {
 public:
  using Type = T;
  static constexpr int kNumber = Number;
  static constexpr int kSlot = Slot;

  const T& get() const { return value_; }
  operator const T&() const { return value_; }  // NOLINT(google-explicit-constructor): reads as its value
  const T* operator->() const { return &value_; }
  template <class U>
  requires std::is_assignable_v<T&, U&&> Field& operator=(U&& value) {
    value_ = std::forward<U>(value);
    set_ = true;
    return *this;
  }
  // The value for changing in place; the field counts as set from now on.
  T& edit() {
    set_ = true;
    return value_;
  }
  bool isSet() const { return set_; }
  void clear() {
    value_ = T();
    set_ = false;
  }

 private:
  T value_{};
  bool set_ = false;
};

// A sub-record or a secret has memory of its own once it is set: most are not, in any of thousands of
// records.
template <class T>
inline constexpr bool kIsRarelySet = std::is_base_of_v<CNMessageBase, T> || std::is_same_v<T, pstring>;

template <class T, int Number, int Slot>
requires kIsRarelySet<T>
class Field<T, Number, Slot> {
 public:
  using Type = T;
  static constexpr int kNumber = Number;
  static constexpr int kSlot = Slot;

  Field() = default;
  Field(const Field& other) : value_(other.value_ ? std::make_unique<T>(*other.value_) : nullptr) {}
  Field(Field&&) noexcept = default;
  Field& operator=(const Field& other) {
    if (this != &other) value_ = other.value_ ? std::make_unique<T>(*other.value_) : nullptr;
    return *this;
  }
  Field& operator=(Field&&) noexcept = default;
  ~Field() = default;

  const T& get() const {
    // Never destroyed: callbacks that run while the process ends may still read it.
    static const T& empty = *new T;
    return value_ ? *value_ : empty;
  }
  operator const T&() const { return get(); }  // NOLINT(google-explicit-constructor): reads as its value
  const T* operator->() const { return &get(); }
  template <class U>
  requires std::is_assignable_v<T&, U&&> Field& operator=(U&& value) {
    edit() = std::forward<U>(value);
    return *this;
  }
  T& edit() {
    if (!value_) value_ = std::make_unique<T>();
    return *value_;
  }
  bool isSet() const { return value_ != nullptr; }
  void clear() { value_.reset(); }

 private:
  std::unique_ptr<T> value_;
};

// What the library knows of one field of one class. Made by field<>(); the functions take the owning message.
struct FieldInfo {
  enum class Kind { kText, kNumber, kProtected, kRecord, kList };

  const char* name;
  int number;
  int slot;
  Kind kind;
  bool (*isSet)(const CNMessageBase& owner);
  // The value, for changing (marks the field as set) and for reading: a std::string, std::int64_t, pstring or
  // CNMessageBase according to `kind`; null for a list.
  void* (*edit)(CNMessageBase& owner);
  const void* (*read)(const CNMessageBase& owner);
  // For a list; `append` adds an empty element, `setEmpty` marks the list as set without one.
  std::size_t (*count)(const CNMessageBase& owner);
  const CNMessageBase& (*at)(const CNMessageBase& owner, std::size_t index);
  CNMessageBase& (*append)(CNMessageBase& owner);
  void (*setEmpty)(CNMessageBase& owner);
  void (*reserve)(CNMessageBase& owner, std::size_t count);
  std::size_t elementBytes;  // what an empty element of a list, sub-record or secret takes; else 0
};

namespace message_detail {

template <class T>
struct IsVector : std::false_type {};
template <class E>
struct IsVector<std::vector<E>> : std::true_type {};

template <class T>
constexpr FieldInfo::Kind kindOf() {
  if constexpr (std::is_same_v<T, std::string>) return FieldInfo::Kind::kText;
  if constexpr (std::is_same_v<T, std::int64_t>) return FieldInfo::Kind::kNumber;
  if constexpr (std::is_same_v<T, pstring>) return FieldInfo::Kind::kProtected;
  if constexpr (IsVector<T>::value) return FieldInfo::Kind::kList;
  return FieldInfo::Kind::kRecord;
}

template <auto Member>
struct MemberOf;
template <class Owner, class F, F Owner::*Member>
struct MemberOf<Member> {
  using FieldType = F;
  static const F& of(const CNMessageBase& owner) { return static_cast<const Owner&>(owner).*Member; }
  static F& of(CNMessageBase& owner) { return static_cast<Owner&>(owner).*Member; }
};

}  // namespace message_detail

template <auto Member>
constexpr FieldInfo field(const char* name) {
  using Access = message_detail::MemberOf<Member>;
  using F = typename Access::FieldType;
  using T = typename F::Type;
  FieldInfo info{};
  info.name = name;
  info.number = F::kNumber;
  info.slot = F::kSlot;
  info.kind = message_detail::kindOf<T>();
  info.isSet = [](const CNMessageBase& owner) { return Access::of(owner).isSet(); };
  if constexpr (message_detail::kindOf<T>() == FieldInfo::Kind::kList) {
    info.count = [](const CNMessageBase& owner) { return Access::of(owner).get().size(); };
    info.at = [](const CNMessageBase& owner, std::size_t index) -> const CNMessageBase& {
      return Access::of(owner).get()[index];
    };
    info.append = [](CNMessageBase& owner) -> CNMessageBase& {
      return Access::of(owner).edit().emplace_back();
    };
    info.setEmpty = [](CNMessageBase& owner) { Access::of(owner).edit().clear(); };
    info.reserve = [](CNMessageBase& owner, std::size_t count) { Access::of(owner).edit().reserve(count); };
    info.elementBytes = sizeof(typename T::value_type);
  } else if constexpr (message_detail::kindOf<T>() == FieldInfo::Kind::kRecord) {
    info.elementBytes = sizeof(T) + 2 * sizeof(void*);  // and what its allocation adds
    info.edit = [](CNMessageBase& owner) -> void* {
      return static_cast<CNMessageBase*>(&Access::of(owner).edit());
    };
    info.read = [](const CNMessageBase& owner) -> const void* {
      return static_cast<const CNMessageBase*>(&Access::of(owner).get());
    };
  } else {
    if constexpr (kIsRarelySet<T>) info.elementBytes = sizeof(T) + 2 * sizeof(void*);
    info.edit = [](CNMessageBase& owner) -> void* { return &Access::of(owner).edit(); };
    info.read = [](const CNMessageBase& owner) -> const void* { return &Access::of(owner).get(); };
  }
  return info;
}

// The identity of a message class; its tag follows from it.
constexpr unsigned long messageTag(int namespaceNumber, int messageNumber) {
  return static_cast<unsigned long>(namespaceNumber) << 16 | static_cast<unsigned long>(messageNumber);
}

template <class M, int NamespaceNumber, int MessageNumber>
class MessageClass : public CNMessageBase {
 public:
  static constexpr unsigned long kTag = messageTag(NamespaceNumber, MessageNumber);

  unsigned long getTagID() const override { return kTag; }
  const char* className() const override { return M::kClassName; }
  std::span<const FieldInfo> fieldList() const override { return M::fields(); }

 private:
  void assign(CNMessageBase&& other) override { static_cast<M&>(*this) = static_cast<M&&>(other); }
};

// Adds a class to the table from which received messages are built; a second time is harmless.
using MessageFactory = std::unique_ptr<CNMessageBase> (*)();
LQ_EXPORT void registerMessageClass(const char* className, MessageFactory factory);

// Takes a class out of the table if it is still built by this factory. For libraries that are unloaded.
LQ_EXPORT void unregisterMessageClass(const char* className, MessageFactory factory);

template <class M>
std::unique_ptr<CNMessageBase> makeMessage() {
  return std::make_unique<M>();
}
template <class... M>
void registerMessageClasses() {
  (registerMessageClass(M::kClassName, &makeMessage<M>), ...);
}
template <class... M>
void unregisterMessageClasses() {
  (unregisterMessageClass(M::kClassName, &makeMessage<M>), ...);
}

// The message as an M when it is one, else null.
template <class M>
M* messageAs(CNMessageBase* message) {
  return message != nullptr && message->getTagID() == M::kTag ? static_cast<M*>(message) : nullptr;
}
template <class M>
const M* messageAs(const CNMessageBase* message) {
  return message != nullptr && message->getTagID() == M::kTag ? static_cast<const M*>(message) : nullptr;
}
