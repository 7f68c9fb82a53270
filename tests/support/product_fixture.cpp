#include "tests/support/product_fixture.h"

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LqRegistryFile.h"
#include "records/service_names.h"

OBGui::RegistryKeyInfo record(const std::string& keyPath, const std::string& valueName,
                              const std::string& value, const std::string& valueType) {
  OBGui::RegistryKeyInfo key;
  key.keyPath = keyPath;
  key.valueName = valueName;
  key.value = value;
  key.valueType = valueType;
  key.deleteFlag = 0;
  key.enabledFlag = 1;
  return key;
}

OBGui::RegistryKeyInfo disabled(const std::string& keyPath, const std::string& valueName,
                                const std::string& value) {
  OBGui::RegistryKeyInfo key = record(keyPath, valueName, value);
  key.enabledFlag = 0;
  return key;
}

OBGui::RegistryKeyInfo removal(const std::string& keyPath, const std::string& valueName,
                               const std::string& valueType) {
  OBGui::RegistryKeyInfo key = record(keyPath, valueName, "", valueType);
  key.deleteFlag = 1;
  return key;
}

OBGui::RegistryKeyInfo secretRecord(const std::string& keyPath, const std::string& valueName,
                                    const std::string& secret) {
  OBGui::RegistryKeyInfo key = record(keyPath, valueName, "protected", "ENCRYPTED");
  key.encryptedValue = pstring(secret);
  return key;
}

std::string batchText(const OBGui::KeyList& keys) {
  OBGui::RegistryTaskResp batch;
  batch.keys = keys;
  std::string text;
  EXPECT_EQ(batch.serialize(text, true), 0);
  return text;
}

namespace {

std::string asText(const oblog::Line& line) {
  const std::string kind = line.kind == oblog::Kind::kError   ? "error"
                           : line.kind == oblog::Kind::kPlain ? "plain"
                                                              : std::to_string(line.level);
  return kind + "|" + line.tag + "|" + line.text;
}

}  // namespace

Lines linesOf(const oblog::Capture& log, const std::string& tagPrefix) {
  Lines lines;
  for (const oblog::Line& line : log.Lines())
    if (line.tag.starts_with(tagPrefix)) lines.push_back(asText(line));
  return lines;
}

testing::AssertionResult hasLine(const oblog::Capture& log, const std::string& start) {
  std::string all;
  for (const std::string& line : linesOf(log)) {
    if (line.starts_with(start)) return testing::AssertionSuccess();
    all += "\n  " + line;
  }
  return testing::AssertionFailure() << "no line begins with\n  " << start << "\namong" << all;
}

ProductTest::ProductTest() {
  oblog::Settings quiet;  // what a test wants to know of the log, it captures
  quiet.toStandardError = false;
  static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
  OBGui::RegisterSubsystem();
  unsetenv("VELMOR_VM");
  lqregistry::UseFile(registryFile_);
  pstring::UseKeyFile("");  // the registry's own
  LQPI_Focus::setFocus("Instance001");
}

ProductTest::~ProductTest() {
  lqregistry::UseFile("/nowhere");  // closes this test's file
  LQPI_Focus::setFocus(nullptr);
}

void ProductTest::join() {
  sessionKey_ = newSessionKeyHex();
  lqregistry::WriteBatch batch;
  ASSERT_TRUE(LQClient::recordClient("client42", kClientId));
  setValue("Overhub", "sOHHOSTNAME", address_);
  setValue("Overhub", "sOHCLIENTNAME", "overhub");
  setValue("Overhub", "sSESSIONIDENTITY", "client42");
  setValue("Overhub", "sSESSIONKEY", sessionKey_);
  setValue("Machine", "sPHYSICALNAME", "machine42");
  setValue("Machine", "sHOSTNAME", "host42");
  setValue("Machine", "nPLATFORMTYPE", "4");
  setValue("Hosts/host42", "sCLIENTNAME", "client42");
  setValue("Base", "dVELMORHOME", "/opt/x");
  setValue("Base", "dBASEHOME", dir_.path().string());
  setValue("EventManager", "bEnableRegistrySync", "1");
  setValue("EventManager", "dOBLOGDIR", "/opt/x/Log_Files");
  setValue("Session", "bANTICHATTER", "0");
  ASSERT_TRUE(batch.commit());
}

std::string ProductTest::valuesOf(const std::string& key, const Lines& names) {
  std::string values;
  for (const std::string& name : names) values += " " + valueOf(key, name).value_or("-");
  return values.substr(1);
}

void ProductTest::removeValue(const std::string& key, const std::string& name) {
  LQPlatformInfo info;
  EXPECT_TRUE(info.delRegField(key, name)) << info.getRegErrorText();
}

OBGui::RegistryTaskResp ProductTest::cached() const {
  OBGui::RegistryTaskResp batch;
  std::string error;
  EXPECT_EQ(batch.unserialize(readFile(cacheFile()), &error), 0) << error;
  return batch;
}

Lines ProductTest::cachedNames() const {
  Lines names;
  const OBGui::RegistryTaskResp batch = cached();
  for (const OBGui::RegistryKeyInfo& key : batch.keys.get()) names.push_back(key.valueName);
  return names;
}

std::unique_ptr<PlayedServer> ProductTest::serve(std::vector<PlayedServer::Script> scripts) const {
  return std::make_unique<PlayedServer>(address_, sessionKey_, std::move(scripts));
}

PlayedServer::PlayedServer(const std::string& address, const std::string& sessionKey,
                           std::vector<Script> scripts)
    : scripts_(std::move(scripts)),
      peer_(address, 8400, "client42", sessionKey,
            [this, next = std::size_t{0}](PeerSession& session) mutable {
              Stage stage(session, *this);
              if (next >= scripts_.size()) {
                if (hasReports()) stage.acceptAttach();
                return;
              }
              scripts_[next](stage);
              if (!stage.wasForReports()) ++next;
            }) {}

void PlayedServer::keep(Lines& where, const std::string& text) {
  const std::lock_guard lock(mutex_);
  where.push_back(text);
}

Lines PlayedServer::attachments() {
  const std::lock_guard lock(mutex_);
  return attachments_;
}

Lines PlayedServer::messages() {
  const std::lock_guard lock(mutex_);
  return messages_;
}

bool PlayedStage::acceptAttach() {
  if (!peer.handshake()) return false;
  const PeerFrame request = peer.readFrame();
  if (request.kind != PeerSession::kAttach) return false;
  wasForReports_ = contains(request.payload, kReportLibraryName);
  if (wasForReports_) {
    server_.serveReport(peer);
    return false;
  }
  server_.keep(server_.attachments_, request.payload);
  peer.writeFrame(PeerSession::kConfirm);
  return true;
}

bool PlayedServer::hasReports() {
  const std::lock_guard lock(mutex_);
  return reports_ != nullptr;
}

void PlayedServer::serveReports(ReportService service) {
  const std::lock_guard lock(mutex_);
  reports_ = std::move(service);
}

void PlayedServer::serveReport(PeerSession& session) {
  ReportService service;
  {
    const std::lock_guard lock(mutex_);
    service = reports_;
  }
  if (!service) {
    session.writeFrame(PeerSession::kRefuse, "no such service");
    return session.waitForClose();
  }
  session.writeFrame(PeerSession::kConfirm);
  const PeerFrame report = session.readFrame();
  if (report.kind != PeerSession::kMessage) return;  // a host that stops goes before it has said anything
  const std::optional<PeerFrame> answer = service(report.payload);
  if (!answer) return;
  session.writeFrame(answer->kind, answer->payload);
  session.answerGoodbye();
}

void PlayedStage::takeMessage() {
  const PeerFrame frame = peer.readFrame();
  if (frame.kind == PeerSession::kMessage) server_.keep(server_.messages_, frame.payload);
}

PlayedServer::Script answering(const std::string& text) {
  return [text](PlayedServer::Stage& stage) {
    if (!stage.acceptAttach()) return;
    stage.takeMessage();
    if (!text.empty()) stage.peer.writeFrame(PeerSession::kMessage, text);
    stage.peer.answerGoodbye();
  };
}

PlayedServer::Script taking() {
  return answering("");
}

PlayedServer::Script refusing(const std::string& reason) {
  return [reason](PlayedServer::Stage& stage) {
    if (!stage.peer.handshake()) return;
    stage.peer.readFrame();
    stage.peer.writeFrame(PeerSession::kRefuse, reason);
    stage.peer.waitForClose();
  };
}
