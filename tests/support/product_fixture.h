// What the product's tests share: a machine that has joined a server, key records in one line, log lines as
// text, and a server that plays one script for each session.
#pragma once

#include <optional>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObLog.h"
#include "tests/support/expectations.h"
#include "tests/support/scripted_peer.h"

using Lines = std::vector<std::string>;

// --- records -----------------------------------------------------------------------------------------------

// A record as the server sends it to have a value set.
OBGui::RegistryKeyInfo record(const std::string& keyPath, const std::string& valueName,
                              const std::string& value, const std::string& valueType = "STRING");
OBGui::RegistryKeyInfo disabled(const std::string& keyPath, const std::string& valueName,
                                const std::string& value);
OBGui::RegistryKeyInfo removal(const std::string& keyPath, const std::string& valueName,
                               const std::string& valueType = "STRING");
OBGui::RegistryKeyInfo secretRecord(const std::string& keyPath, const std::string& valueName,
                                    const std::string& secret);
// The text of a batch as a server sends it.
std::string batchText(const OBGui::KeyList& keys);

// --- log ---------------------------------------------------------------------------------------------------

// The lines whose tag begins with `tagPrefix`, in order: "error|tag|text", "plain|tag|text", or with the
// line's level, as in "2|tag|text".
Lines linesOf(const oblog::Capture& log, const std::string& tagPrefix = "");
// Whether a line that begins with `start` is among them.
testing::AssertionResult hasLine(const oblog::Capture& log, const std::string& start);

// --- a joined machine --------------------------------------------------------------------------------------

class PlayedServer;
class PlayedStage;

// A registry of its own in a folder of its own, seen from instance "Instance001".
class ProductTest : public testing::Test {
 protected:
  ProductTest();
  ~ProductTest() override;

  // Writes what `lqhost join` leaves: client "client42" with id 42 on machine "machine42" with host "host42",
  // whose server is to listen on `address_`; the installation's home is /opt/x, its base directory `dir_`.
  void join();

  // Those of several names, with a blank between them; "-" for one that is not there.
  static std::string valuesOf(const std::string& key, const Lines& names);
  static void removeValue(const std::string& key, const std::string& name);
  std::string cacheFile() const { return dir_ / "AdditionalSettingsCache.xml"; }
  // The batch in the cache file, and the names of its records.
  OBGui::RegistryTaskResp cached() const;
  Lines cachedNames() const;
  // The server that this machine has joined.
  std::unique_ptr<PlayedServer> serve(std::vector<std::function<void(PlayedStage&)>> scripts) const;

  static constexpr std::int64_t kClientId = 42;
  TempDir dir_;
  std::string registryFile_ = dir_ / "registry.db";
  std::string address_ = uniqueLoopbackAddress();
  std::string sessionKey_;
};

// --- the server --------------------------------------------------------------------------------------------

// One session, as its script sees it. Sessions with the report service are no script's business.
class PlayedStage {
 public:
  PlayedStage(PeerSession& session, PlayedServer& server) : peer(session), server_(server) {}
  // Handshake, attach request, yes; the request is kept for attachments().
  bool acceptAttach();
  // Whether the caller wanted the report service instead, which was dealt with; the script is still to come.
  bool wasForReports() const { return wasForReports_; }
  // The next message, kept for messages().
  void takeMessage();
  PeerSession& peer;

 private:
  PlayedServer& server_;
  bool wasForReports_ = false;
};

// Plays a script for each session, the first for the first caller and so on; callers beyond them find the
// connection closed.
class PlayedServer {
 public:
  using Stage = PlayedStage;
  using Script = std::function<void(Stage&)>;
  // What the server's report service answers to the text of a report, frame by frame; nothing: it closes.
  using ReportService = std::function<std::optional<PeerFrame>(const std::string& text)>;

  PlayedServer(const std::string& address, const std::string& sessionKey, std::vector<Script> scripts);

  // From now on there is a report service; before, there is none, and who wants it is refused.
  void serveReports(ReportService service);

  int sessions() const { return peer_.callers(); }
  Lines attachments();
  Lines messages();
  // The nth message, as an M.
  template <class M>
  M message(std::size_t index) {
    M parsed;
    const auto all = messages();
    std::string error = "there are only " + std::to_string(all.size()) + " messages";
    EXPECT_TRUE(index < all.size() && parsed.unserialize(all[index], &error) == 0) << error;
    return parsed;
  }

 private:
  friend PlayedStage;
  void keep(Lines& where, const std::string& text);

  void serveReport(PeerSession& session);
  bool hasReports();

  std::vector<Script> scripts_;
  std::mutex mutex_;  // guards what follows
  ReportService reports_;
  Lines attachments_;
  Lines messages_;
  ScriptedPeer peer_;
};

// Takes one message, answers with a message of this text, or not when there is none, and says goodbye.
PlayedServer::Script answering(const std::string& text);
// Takes one message without an answer, and says goodbye.
PlayedServer::Script taking();
// Refuses to be attached to.
PlayedServer::Script refusing(const std::string& reason);
