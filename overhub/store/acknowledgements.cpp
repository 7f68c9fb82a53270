#include "overhub/store/acknowledgements.h"
#include "lqregistry/UtcText.h"

#include <ctime>
#include <sstream>

namespace {

// More than a line takes.
constexpr std::size_t kLastLineBytes = 512;

void appendLines(const std::string& text, const std::string& client, std::vector<Acknowledgement>& list) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.find(' ');
    if (blank != std::string::npos) list.push_back({line.substr(0, blank), client, line.substr(blank + 1)});
  }
}

}  // namespace

CWmError recordAcknowledgement(const DataStore& store, const std::string& client, std::int64_t clientId,
                               std::int64_t taskStatus) {
  const char* const meaning = taskStatus == OBGui::kTaskSuccess ? "applied" : "failed";
  return file_access::appendLine(store.acknowledgementsFile(client),
                                 lqtext::utcText(std::time(nullptr)) + " id=" + std::to_string(clientId) +
                                     " taskStatus=" + std::to_string(taskStatus) + " (" + meaning + ")");
}

CWmError readAcknowledgements(const DataStore& store, const std::string& client,
                              std::vector<Acknowledgement>& list) {
  const std::string file = store.acknowledgementsFile(client);
  if (!file_access::exists(file)) return {};
  std::string text;
  CWmError error = file_access::readWhole(file, text);
  if (!error.IsError()) appendLines(text, client, list);
  return error;
}

CWmError lastAcknowledgement(const DataStore& store, const std::string& client, Acknowledgement& last) {
  last = Acknowledgement();
  const std::string file = store.acknowledgementsFile(client);
  if (!file_access::exists(file)) return {};
  std::string text;
  CWmError error = file_access::readEnd(file, kLastLineBytes, text);
  std::vector<Acknowledgement> list;
  if (!error.IsError()) appendLines(text, client, list);
  if (!list.empty()) last = list.back();
  return error;
}
