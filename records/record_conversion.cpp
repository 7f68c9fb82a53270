#include "records/record_conversion.h"

#include "records/record_rules.h"

unsigned getKeyType(const std::string&) {
  return 0;
}

std::string getKeyString(unsigned) {
  return STRINGTYPE;
}

namespace {

// The application namespace's word for what the registry calls "STRING"; exact, so "value" stays "value".
constexpr const char* kAppValueType = "VALUE";

OBGui::RegistryKeyInfo converted(const App::RegistryKeyInfo& source) {
  OBGui::RegistryKeyInfo record;
  record.valueName = source.valueName.get();
  record.valueType = source.valueType.get() == kAppValueType ? getKeyString(0) : source.valueType.get();
  record.value = source.value.get();
  record.keyPath = source.keyPath.get();
  record.deleteFlag = source.deleteFlag.get();
  record.enabledFlag = source.enabledFlag.get();
  // The fields above are always written, an unset one with its default; these two only when there is
  // something to write, so that what was not there stays unset for whoever the record is passed on to.
  if (source.encryptedValue.isSet()) record.encryptedValue = source.encryptedValue.get();
  if (source.association->id != 0) record.association = source.association.get();
  return record;
}

}  // namespace

void appendConverted(OBGui::KeyList& out, const App::KeyList& in) {
  out.reserve(out.size() + in.size());
  for (const App::RegistryKeyInfo& source : in) out.push_back(converted(source));
}
