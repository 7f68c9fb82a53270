// What the product's tests share: a machine that has joined a server, key records in one line, log lines as
// text, and a server that plays one script for each session.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObLog.h"
#include "tests/support/scripted_peer.h"
#include "tests/support/test_support.h"

using test_support::FullDisk;

// --- records -----------------------------------------------------------------------------------------------

// A record as the server sends it to have a value set.
OBGui::RegistryKeyInfo record(const std::string& keyPath, const std::string& valueName,
                              const std::string& value, const std::string& valueType = "STRING");
OBGui::RegistryKeyInfo removal(const std::string& keyPath, const std::string& valueName,
                               const std::string& valueType = "STRING");
OBGui::RegistryKeyInfo secretRecord(const std::string& keyPath, const std::string& valueName,
                                    const std::string& secret);
// The text of a batch as a server sends it.
std::string batchText(const OBGui::KeyList& keys);

// --- log ---------------------------------------------------------------------------------------------------

// The lines whose tag begins with `tagPrefix`, in order: "error|tag|text", "plain|tag|text" or
// "<level>|tag|text".
std::vector<std::string> linesOf(const oblog::Capture& log, const std::string& tagPrefix = "");
// Whether a line that begins with `start` is among them.
testing::AssertionResult hasLine(const oblog::Capture& log, const std::string& start);

// --- a joined machine --------------------------------------------------------------------------------------

// A registry of its own in a folder of its own, seen from instance "Instance001".
class ProductTest : public testing::Test {
 protected:
  ProductTest();
  ~ProductTest() override;

  // Writes what `lqhost join` leaves: client "client42" with id 42 on machine "machine42" with host "host42",
  // whose server is to listen on `address_`; the installation's home is /opt/x, its base directory `dir_`.
  void join();

  static std::optional<std::string> valueOf(const std::string& key, const std::string& name);
  static void setValue(const std::string& key, const std::string& name, const std::string& value);
  static void removeValue(const std::string& key, const std::string& name);
  std::string cacheFile() const { return dir_ / "AdditionalSettingsCache.xml"; }

  static constexpr std::int64_t kClientId = 42;
  test_support::TempDir dir_;
  std::string registryFile_ = dir_ / "registry.db";
  std::string address_ = test_support::uniqueLoopbackAddress();
  std::string sessionKey_;
};

// --- the server --------------------------------------------------------------------------------------------

// Plays a script for each session, the first for the first caller and so on; callers beyond them find the
// connection closed.
class PlayedServer {
 public:
  class Stage {
   public:
    Stage(test_support::PeerSession& session, PlayedServer& server) : peer(session), server_(server) {}
    // Handshake, attach request, yes; the request is kept for attachments().
    bool acceptAttach();
    // The next message, kept for messages().
    void takeMessage();
    test_support::PeerSession& peer;

   private:
    PlayedServer& server_;
  };
  using Script = std::function<void(Stage&)>;

  PlayedServer(const std::string& address, const std::string& sessionKey, std::vector<Script> scripts);

  int sessions() const { return peer_.callers(); }
  std::vector<std::string> attachments();
  std::vector<std::string> messages();
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
  void keep(std::vector<std::string>& where, const std::string& text);

  std::vector<Script> scripts_;
  std::mutex mutex_;  // guards the two lists
  std::vector<std::string> attachments_;
  std::vector<std::string> messages_;
  test_support::ScriptedPeer peer_;
};

// Takes one message, answers with a message of this text, and takes leave.
PlayedServer::Script answering(const std::string& text);
// Takes one message without an answer, and takes leave.
PlayedServer::Script taking();
// Refuses to be attached to.
PlayedServer::Script refusing(const std::string& reason);
