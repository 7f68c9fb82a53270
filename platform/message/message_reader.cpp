#include "platform/message/message_reader.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <new>
#include <pugixml.hpp>

#include "platform/message/message_classes.h"
#include "platform/message/message_writer.h"
#include "platform/message/text_escape.h"

namespace {

// What the XML library takes for an element or a piece of text between two, and for an attribute.
constexpr std::size_t kNodeBytes = 8 * sizeof(void*);
constexpr std::size_t kAttributeBytes = 5 * sizeof(void*);

// What the text's tree will take. Counts generously: what looks like an attribute inside a value is one.
std::size_t treeBytes(std::string_view text) {
  std::size_t bytes = 0;
  for (std::size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
    if (!text.substr(i).starts_with("</")) bytes += kNodeBytes;
  }
  for (std::size_t i = text.find('>'); i != std::string_view::npos; i = text.find('>', i + 1))
    if (i + 1 < text.size() && text[i + 1] != '<') bytes += kNodeBytes;
  for (std::size_t i = text.find('='); i != std::string_view::npos; i = text.find('=', i + 1)) {
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    if (next == '"' || next == '\'') bytes += kAttributeBytes;
  }
  return bytes;
}

enum class Purpose { kBuild, kCount };

// To count, each record of a list takes the place of the one before it, and secrets stay closed.
class Reader {
 public:
  explicit Reader(std::string_view text, Purpose purpose = Purpose::kBuild)
      : isCounting_(purpose == Purpose::kCount),
        left_(kMaxReadFactor * text.size() + kReadAllowanceBytes - text.size()) {}

  bool take(std::size_t bytes, const char* what) {
    if (bytes > left_) {
      error_ = std::string(what) + " would take more than " + std::to_string(kMaxReadFactor) +
               " times the memory of the text";
      return false;
    }
    left_ -= bytes;
    return true;
  }

  bool readFields(CNMessageBase& message, pugi::xml_node node, int depth) {
    if (depth > kMaxMessageDepth) return fail(message, node.name(), "nested too deep");
    const std::span<const FieldInfo> fields = message.fieldList();
    std::size_t next = 0;  // attributes are written in the fields' order
    for (pugi::xml_attribute attribute = node.first_attribute(); attribute;
         attribute = attribute.next_attribute()) {
      const std::size_t found = attributeField(fields, next, attribute.name());
      if (found == fields.size()) continue;
      if (!readScalar(message, fields[found], attribute.value())) return false;
      next = found + 1;
    }
    if (!node.first_child()) return true;
    for (const FieldInfo& info : fields)
      if (!isAttribute(info) && !readChild(message, info, node.child(info.name), depth)) return false;
    return true;
  }
  std::size_t records() const { return elements_; }
  const std::string& error() const { return error_; }

 private:
  static bool isAttribute(const FieldInfo& info) {
    return info.kind != FieldInfo::Kind::kRecord && info.kind != FieldInfo::Kind::kList;
  }

  // The field of this name, tried from `next` on and then from the start; the number of fields when there is
  // none.
  static std::size_t attributeField(std::span<const FieldInfo> fields, std::size_t next, const char* name) {
    for (std::size_t tried = 0; tried < fields.size(); ++tried, ++next) {
      if (next == fields.size()) next = 0;
      if (isAttribute(fields[next]) && std::strcmp(name, fields[next].name) == 0) return next;
    }
    return fields.size();
  }

  bool readChild(CNMessageBase& owner, const FieldInfo& info, pugi::xml_node child, int depth) {
    if (!child) return true;
    if (info.kind == FieldInfo::Kind::kList) return readList(owner, info, child, depth);
    if (!isCounting_ && !take(info.elementBytes, info.name)) return false;
    return readFields(*static_cast<CNMessageBase*>(info.edit(owner)), child, depth + 1);
  }

  // Records get their memory at once, when their number is known and found bearable.
  bool prepareList(CNMessageBase& owner, const FieldInfo& info, pugi::xml_node list) {
    const auto count = static_cast<std::size_t>(std::distance(list.begin(), list.end()));
    records_ += count;
    if (records_ > kMaxMessageRecords)
      return fail(owner, info.name,
                  ("makes it more than " + std::to_string(kMaxMessageRecords) + " records").c_str());
    info.setEmpty(owner);
    if (isCounting_) return true;
    if (!take(count * info.elementBytes, info.name)) return false;
    info.reserve(owner, count);
    return true;
  }

  bool readList(CNMessageBase& owner, const FieldInfo& info, pugi::xml_node list, int depth) {
    if (!prepareList(owner, info, list)) return false;
    while (const pugi::xml_node child = list.first_child()) {
      if (child.type() == pugi::node_element) {
        ++elements_;
        if (isCounting_) info.setEmpty(owner);
        CNMessageBase& element = info.append(owner);
        if (std::string_view(child.name()) != element.className())
          return fail(owner, info.name, "holds an element of another class");
        if (!readFields(element, child, depth + 1)) return false;
      }
      list.remove_child(child);  // the tree gives way to the records
    }
    return true;
  }

  bool readScalar(CNMessageBase& owner, const FieldInfo& info, std::string_view text) {
    if (!isCounting_ && !take(info.elementBytes + text.size(), info.name)) return false;
    if (isCounting_ && info.kind == FieldInfo::Kind::kText && !lqmessage::isEscaped(text)) return true;
    void* const value = info.edit(owner);
    switch (info.kind) {
      case FieldInfo::Kind::kText:
        return lqmessage::unescape(text, *static_cast<std::string*>(value)) ||
               fail(owner, info.name, "holds a broken escape");
      case FieldInfo::Kind::kNumber: {
        const auto [end, failure] =
            std::from_chars(text.data(), text.data() + text.size(), *static_cast<std::int64_t*>(value));
        return (failure == std::errc() && end == text.data() + text.size()) ||
               fail(owner, info.name, "is not a 64-bit number");
      }
      default:
        return readProtected(text, *static_cast<pstring*>(value)) ||
               fail(owner, info.name, "is not a protected value");
    }
  }

  bool readProtected(std::string_view text, pstring& value) const {
    // To count, the look of a stored text is enough.
    if (isCounting_ && !text.starts_with(lqmessage::kClearPrefix))
      text = text.substr(0, lqmessage::kClearPrefix.size());
    // One value that cannot be opened must not cost all the others of the message.
    if (!text.starts_with(lqmessage::kClearPrefix)) return pstring::fromStoredText(text, value);
    std::string secret;
    const bool readable = lqmessage::unescape(text.substr(lqmessage::kClearPrefix.size()), secret);
    value = pstring(secret);
    explicit_bzero(secret.data(), secret.size());
    return readable;
  }

  bool fail(const CNMessageBase& message, const char* fieldName, const char* what) {
    error_ = std::string(message.className()) + "." + fieldName + " " + what;
    return false;
  }

  const bool isCounting_;
  std::size_t left_;          // of the memory that reading may take
  std::size_t records_ = 0;   // and what lies between them
  std::size_t elements_ = 0;  // of lists
  std::string error_;
};

CWmError badMessage(std::string why) {
  return {kLqErrBadMessage, std::move(why)};
}

// An error unless the document has an element. The document lies in the text from now on.
CWmError parseDocument(std::string& text, pugi::xml_document& document) {
  const pugi::xml_parse_result parsed = document.load_buffer_inplace(
      text.data(), text.size(), pugi::parse_escapes | pugi::parse_eol | pugi::parse_doctype,
      pugi::encoding_utf8);
  if (!parsed)
    return badMessage("broken XML at byte " + std::to_string(parsed.offset) + ": " + parsed.description());
  return document.document_element() ? CWmError() : badMessage("no element in the text");
}

// Uses the text up.
CWmError readWith(Reader& reader, std::string& text, std::unique_ptr<CNMessageBase>& message) {
  message.reset();
  try {
    if (!reader.take(treeBytes(text), "its elements")) return badMessage(reader.error());
    pugi::xml_document document;
    if (CWmError error = parseDocument(text, document); error.IsError()) return error;
    const pugi::xml_node root = document.document_element();
    const MessageFactory factory = lqmessage::factoryOf(root.name());
    if (factory == nullptr) return badMessage(std::string("unknown message class ") + root.name());
    std::unique_ptr<CNMessageBase> built = factory();
    if (!reader.readFields(*built, root, 1)) return badMessage(reader.error());
    message = std::move(built);
    return {};
  } catch (const std::bad_alloc&) {
    return badMessage("not enough memory for the message");
  }
}

}  // namespace

namespace lqmessage {

CWmError readMessage(std::string& text, std::unique_ptr<CNMessageBase>& message) {
  Reader reader(text);
  return readWith(reader, text, message);
}

CWmError countRecords(std::string& text, std::unique_ptr<CNMessageBase>& last, std::size_t& records) {
  Reader reader(text, Purpose::kCount);
  CWmError error = readWith(reader, text, last);
  records = reader.records();
  return error;
}

}  // namespace lqmessage
