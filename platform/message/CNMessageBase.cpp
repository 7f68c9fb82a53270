// What every message class has: its text form and its comparison.
#include "lqregistry/CNMessageBase.h"

#include <new>

#include "platform/message/message_reader.h"
#include "platform/message/message_writer.h"

namespace {

int writeText(const CNMessageBase& message, std::string& text, bool revealProtected,
              lqmessage::Layout layout) {
  try {
    return lqmessage::writeMessage(message, text, revealProtected, layout) ? 0 : 1;
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

bool equalField(const CNMessageBase& a, const CNMessageBase& b, const FieldInfo& info) {
  if (info.isSet(a) != info.isSet(b)) return false;
  switch (info.kind) {
    case FieldInfo::Kind::kText:
      return *static_cast<const std::string*>(info.read(a)) == *static_cast<const std::string*>(info.read(b));
    case FieldInfo::Kind::kNumber:
      return *static_cast<const std::int64_t*>(info.read(a)) ==
             *static_cast<const std::int64_t*>(info.read(b));
    case FieldInfo::Kind::kProtected:
      return *static_cast<const pstring*>(info.read(a)) == *static_cast<const pstring*>(info.read(b));
    case FieldInfo::Kind::kRecord:
      return static_cast<const CNMessageBase*>(info.read(a))
          ->equals(*static_cast<const CNMessageBase*>(info.read(b)));
    case FieldInfo::Kind::kList:
      break;
  }
  const std::size_t count = info.count(a);
  if (count != info.count(b)) return false;
  for (std::size_t i = 0; i < count; ++i)
    if (!info.at(a, i).equals(info.at(b, i))) return false;
  return true;
}

}  // namespace

int CNMessageBase::serialize(std::string& text, bool revealProtected) const {
  return writeText(*this, text, revealProtected, lqmessage::Layout::kOneLine);
}

int CNMessageBase::serializeForPeople(std::string& text) const {
  return writeText(*this, text, false, lqmessage::Layout::kForPeople);
}

int CNMessageBase::unserialize(const std::string& text, std::string* why) {
  std::unique_ptr<CNMessageBase> message;
  const CWmError error = fromText(text, message);
  std::string reason = error.AsString();
  if (!error.IsError() && message->getTagID() != getTagID())
    reason = std::string("the text holds a ") + message->className() + ", not a " + className();
  if (!reason.empty()) {
    if (why != nullptr) *why = reason;
    return 1;
  }
  assign(std::move(*message));
  return 0;
}

bool CNMessageBase::equals(const CNMessageBase& other) const {
  if (getTagID() != other.getTagID()) return false;
  for (const FieldInfo& info : fieldList())
    if (!equalField(*this, other, info)) return false;
  return true;
}

CWmError CNMessageBase::fromText(const std::string& text, std::unique_ptr<CNMessageBase>& message) {
  std::string copy = text;
  return fromBuffer(copy, message);
}

CWmError CNMessageBase::fromBuffer(std::string& text, std::unique_ptr<CNMessageBase>& message) {
  return lqmessage::readMessage(text, message);
}

bool CNMessageBase::isReadable(std::string text, std::size_t& records) const {
  std::unique_ptr<CNMessageBase> last;
  return !lqmessage::countRecords(text, last, records).IsError() && last->getTagID() == getTagID();
}
