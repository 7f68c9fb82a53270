#include "platform/message/message_writer.h"

#include <array>
#include <charconv>

#include "platform/message/text_escape.h"

namespace lqmessage {

namespace {

constexpr std::string_view kIndent = "  ";
constexpr std::size_t kMarkupBytes = 4;    // of an attribute: a blank, "=" and two quotes
constexpr std::size_t kSealBytes = 32;     // by which a sealed secret is longer than in base 64
constexpr std::size_t kNumberDigits = 20;  // of the longest 64-bit number, its sign included

// About what the element takes: more than it does, unless much of it has to be escaped. Memory that is asked
// for at once is touched once, and leaves no copies of secrets behind.
std::size_t roomFor(const CNMessageBase& message) {
  std::size_t bytes = 2 * std::string_view(message.className()).size() + kMarkupBytes;
  for (const FieldInfo& info : message.fieldList()) {
    if (!info.isSet(message)) continue;
    bytes += std::string_view(info.name).size() + kMarkupBytes;
    switch (info.kind) {
      case FieldInfo::Kind::kText:
        bytes += static_cast<const std::string*>(info.read(message))->size();
        break;
      case FieldInfo::Kind::kNumber:
        bytes += kNumberDigits;
        break;
      case FieldInfo::Kind::kProtected:
        bytes += 2 * static_cast<const pstring*>(info.read(message))->reveal().size() + kSealBytes;
        break;
      case FieldInfo::Kind::kRecord:
        bytes += roomFor(*static_cast<const CNMessageBase*>(info.read(message)));
        break;
      case FieldInfo::Kind::kList:
        for (std::size_t i = info.count(message); i > 0; --i) bytes += roomFor(info.at(message, i - 1));
        break;
    }
  }
  return bytes;
}

class Writer {
 public:
  Writer(std::string& text, bool revealProtected, Layout layout)
      : text_(text), revealProtected_(revealProtected), isForPeople_(layout == Layout::kForPeople) {}

  bool element(const CNMessageBase& message, const char* name, std::size_t depth) {
    beginLine(depth);
    text_ += '<';
    text_ += name;
    bool hasChildren = false;
    for (const FieldInfo& info : message.fieldList()) {
      if (!info.isSet(message)) continue;
      const bool isChild = info.kind == FieldInfo::Kind::kRecord || info.kind == FieldInfo::Kind::kList;
      hasChildren = hasChildren || isChild;
      if (!isChild && !attribute(message, info)) return false;
    }
    if (!hasChildren) {
      endEmpty();
      return true;
    }
    endTag();
    for (const FieldInfo& info : message.fieldList())
      if (info.isSet(message) && !child(message, info, depth + 1)) return false;
    close(name, depth);
    return true;
  }

 private:
  bool child(const CNMessageBase& owner, const FieldInfo& info, std::size_t depth) {
    if (info.kind == FieldInfo::Kind::kRecord)
      return element(*static_cast<const CNMessageBase*>(info.read(owner)), info.name, depth);
    if (info.kind != FieldInfo::Kind::kList) return true;
    beginLine(depth);
    text_ += '<';
    text_ += info.name;
    const std::size_t count = info.count(owner);
    if (count == 0) {
      endEmpty();
      return true;
    }
    endTag();
    for (std::size_t i = 0; i < count; ++i) {
      const CNMessageBase& record = info.at(owner, i);
      if (!element(record, record.className(), depth + 1)) return false;
    }
    close(info.name, depth);
    return true;
  }

  bool attribute(const CNMessageBase& owner, const FieldInfo& info) {
    text_ += ' ';
    text_ += info.name;
    text_ += "=\"";
    bool isWritten = true;
    if (info.kind == FieldInfo::Kind::kText) {
      appendAttribute(text_, *static_cast<const std::string*>(info.read(owner)));
    } else if (info.kind == FieldInfo::Kind::kNumber) {
      number(*static_cast<const std::int64_t*>(info.read(owner)));
    } else {
      isWritten = protectedText(*static_cast<const pstring*>(info.read(owner)));
    }
    text_ += '"';
    return isWritten;
  }

  void number(std::int64_t value) {
    std::array<char, kNumberDigits> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    text_.append(digits.data(), end);
  }

  bool protectedText(const pstring& value) {
    if (revealProtected_) {
      // What cannot be read cannot be told, and nothing must not be taken for the secret.
      if (value.isUnreadable()) return false;
      text_ += kClearPrefix;
      appendAttribute(text_, value.reveal());
      return true;
    }
    const std::string sealed = value.getV8Password();
    appendEntities(text_, sealed);  // base 64, or whatever it was that could not be opened
    return value.empty() || !sealed.empty();
  }

  void beginLine(std::size_t depth) {
    if (!isForPeople_) return;
    for (std::size_t i = 0; i < depth; ++i) text_ += kIndent;
  }
  void endTag() { text_ += isForPeople_ ? ">\n" : ">"; }
  void endEmpty() { text_ += isForPeople_ ? " />\n" : "/>"; }
  void close(const char* name, std::size_t depth) {
    beginLine(depth);
    text_ += "</";
    text_ += name;
    endTag();
  }

  std::string& text_;
  const bool revealProtected_;
  const bool isForPeople_;
};

}  // namespace

bool writeMessage(const CNMessageBase& message, std::string& text, bool revealProtected, Layout layout) {
  std::string written;
  written.reserve(roomFor(message));
  const bool isWhole = Writer(written, revealProtected, layout).element(message, message.className(), 0);
  if (isWhole) text.swap(written);
  return isWhole;
}

}  // namespace lqmessage
