// LqRegistryManagerClnt: the registry client. One object does one piece of work for one installation
// instance: it exchanges messages with the management server, applies key lists to the local registry and
// keeps the Additional Settings cache.
//
// Build it on the stack, call one operation, let it go. It keeps no connection between exchanges: each
// exchange attaches to the server's registry-manager library, sends `sendMessage`, receives one reply into
// `receivedMessage` unless `sendOnly` is set, and disconnects. An object is used by one thread at a time; any
// number of objects may work at once. Nothing is thrown; registry and client operations return 0 for success
// and 3 for failure, session steps a truth value, and what went wrong stands in the log and in `regStatus`.
//
// The fields are public because a host module works with them: it sets `sendMessage` and `sendOnly` for an
// exchange of its own, and takes the reply from `receivedMessage`.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "lqregistry/App.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/CNMessageBase.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"

// Results of registry and client operations.
inline constexpr int kResultOk = 0;
inline constexpr int kResultFailed = 3;

// LqRegistryManagerClnt::regStatus: the last local-registry failure.
inline constexpr std::int32_t kRegStatusOk = 0;
inline constexpr std::int32_t kRegStatusReadFailed = 2;  // for another reason than the next two
inline constexpr std::int32_t kRegStatusKeyMissing = 6;
inline constexpr std::int32_t kRegStatusValueMissing = 7;  // its key exists
inline constexpr std::int32_t kRegStatusWriteFailed = 8;

// The Additional Settings cache, in the base directory.
inline constexpr const char* kSettingsCacheFile = "AdditionalSettingsCache.xml";

class LQ_EXPORT LqRegistryManagerClnt {
 public:
  // `focus` is the installation instance to work on; empty means the platform's current one. A failed
  // initialize() shows as clientId 0.
  explicit LqRegistryManagerClnt(const std::string& focus);
  // Drops an open connection without a goodbye.
  ~LqRegistryManagerClnt();
  LqRegistryManagerClnt(const LqRegistryManagerClnt&) = delete;
  LqRegistryManagerClnt& operator=(const LqRegistryManagerClnt&) = delete;

  // --- session (session.cpp) -------------------------------------------------------------------------------

  // Registers the message namespaces and determines client id, platform types and host names. False, with
  // clientId 0 and the rest untouched, when the client id is not known.
  bool initialize();

  void setRemotePlatformType(std::uint32_t type) { remotePlatformType = type; }
  std::uint32_t getRemotePlatformType() const { return remotePlatformType; }
  void setLocalPlatformType(std::uint32_t type) { localPlatformType = type; }
  std::uint32_t getLocalPlatformType() const { return localPlatformType; }
  void setRemoteHostName(const std::string& name) { remoteHostName = name; }
  std::string getRemoteHostName() const { return remoteHostName; }
  void setLocalHostName(const std::string& name) { localHostName = name; }
  std::string getLocalHostName() const { return localHostName; }

  // One exchange with `sendMessage`: connects unless connected, sends, receives unless `sendOnly`,
  // disconnects. Both numbers are ignored; every caller passes -1, -1.
  bool networkOperationsReg(int, int);
  // The exchange over an existing connection.
  bool messageOperationsReg();
  // Sends `sendMessage`; disconnects on failure.
  bool sendXMLMessage();
  // Receives into `receivedMessage`; on failure disconnects, but keeps a connection that was lost.
  bool receiveXMLMessage();
  // Attaches a new connection to the server named in the registry.
  bool dllConnect();
  // Ends the connection in order and destroys it; only while there is one.
  void disconnect();

  // --- one record in the local registry (record_store.cpp) ------------------------------------------------

  // Whether the record's value can be read; sets regStatus when it cannot. A null record is false.
  bool isRegistryKeyExists(const OBGui::RegistryKeyInfo* key);
  // Makes the record's value (for a "KEY" record its sub-key) exist with the record's contents. A null record
  // or an empty name is a success without effect.
  int createRegistryKey(const OBGui::RegistryKeyInfo* key);
  // Writes one value: `length` bytes of `data`, null and 0 for an empty one.
  int createRegistryKeyField(const std::string& keyPath, const std::string& valueName, unsigned type,
                             const char* data, int length);
  // Removes the record's value or sub-key; removing what is not there succeeds. A null record or an empty
  // name is a failure.
  int deleteRegistryKey(const OBGui::RegistryKeyInfo* key);

  // --- applying key lists (apply.cpp) ----------------------------------------------------------------------

  // Makes the local registry agree with `keys` in one transaction, and queues the change callbacks once it is
  // on disk; 0, or 3 when any record failed. Every record is tried. Sets deleteFlag to 1 on records that have
  // expired. Not within a WriteBatch of the caller's, before whose end nothing would be on disk.
  int updateRegistryKeysForClient(OBGui::KeyList& keys);
  // The same, and sends `response` with the outcome as its taskStatus; true when the keys were applied.
  bool updateRegistryAndSendResponse(OBGui::KeyList& keys, OBGui::RegistryTaskResp& response);
  // Applies the list of another module of the host; returns regStatus, not the apply result.
  unsigned updateRegistryKeyForTPPM(App::KeyList& keys);
  // Appends `in`, converted, to `out`; true when `out` is not empty afterwards.
  bool AppToObGui(OBGui::KeyList& out, const App::KeyList& in);

  // --- download (download.cpp) -----------------------------------------------------------------------------

  // One synchronisation: requests the key batch, applies it, refreshes the cache, acknowledges. 0 when a
  // batch was received and handled, whatever the outcome of applying it; 3 when none was. Holds the
  // LqPassLock to its end; 3, with an error line and nothing sent, when another pass keeps it.
  unsigned downLoadAndUpdateClient();
  // Fetches the static key list into `keys`; 0, or 3 with `keys` unchanged. The other arguments are not used.
  int downLoadRegKeysFromServer(OBGui::KeyList& keys, std::uint64_t, const std::string&, const std::string&);

  // --- enumeration (enumeration.cpp) -----------------------------------------------------------------------

  // Appends a record for every key below the instance root, each followed by its values. 0, or 3 when `path`
  // is null or the root cannot be listed. `path` selects nothing: the walk always starts at the root. Every
  // value is in clear, passwords included.
  unsigned enumerateClientKeysInfo(const char* path, OBGui::KeyList& records);
  // Appends the paths of all keys below `parent`, each before those below it; 3 when it cannot be listed.
  unsigned getAllClientKeys(const char* parent, std::list<std::string>& keys);
  // Appends the key's own record and one for each name in `values` that can be read; 3 for an empty path.
  unsigned fillKeyFieldInformation(const std::string& keyPath,
                                   const std::map<std::string, std::string>& values, OBGui::KeyList& records);

  // --- upload (upload.cpp) ---------------------------------------------------------------------------------

  // Sends the whole registry of the instance to the server. 0, also when no verdict came back; 3 when it
  // could not be enumerated, the client id is not known or the server answered with a failure.
  unsigned uploadKeys();
  // Sends a prepared upload and judges the reply.
  unsigned uploadRegistryKeysToServer(OBGui::RegistryTaskResp& message);

  // --- requests of the server (server_requests.cpp) --------------------------------------------------------

  // Applies a pushed batch (its keys are changed in place) and makes the answer `sendMessage`, for the caller
  // to send. 1, or 0 without an answer when the client id is not known.
  unsigned serverRequestHandler(OBGui::RegistryTaskResp& request);
  // Fills `value` of each record from the registry, in clear; the outcome is in regStatus and the log.
  void getRequestedKeys(App::KeyList* keys);
  // Sends the records as the answer to a fetch on `session`, and closes the session's reply side.
  void sendRequestedKeys(CLqNetwork* session, App::KeyList* keys);

  // --- Additional Settings cache (settings_cache.cpp) ------------------------------------------------------

  // The whole cache file; empty on any failure, which is logged. Any thread.
  static std::string getAdditionalSettingsCache();
  // Replaces the file's contents; the outcome stands in the log only. Any thread.
  static void setAdditionalSettingsCache(std::string xml);

  // --- state -----------------------------------------------------------------------------------------------

  std::unique_ptr<CLqNetwork> network;  // the connection of the exchange under way, or none
  LQPlatformInfo platformInfo;
  std::int32_t regStatus = kRegStatusOk;
  ObDebug logger;
  // What the next exchange sends; not owned. After an operation of this class that ran an exchange of its own
  // it points at a message that is gone: set it anew before an exchange.
  const CNMessageBase* sendMessage = nullptr;
  std::unique_ptr<CNMessageBase> receivedMessage;  // the last reply; the caller may take it
  // 4294967295 until initialize() has determined them; with that value connecting is refused.
  std::uint32_t remotePlatformType = 4294967295;
  std::uint32_t localPlatformType = 4294967295;
  std::string remoteLibraryName;
  std::string remoteEntryName;
  std::string remoteHostName;
  std::string localHostName;
  OBGui::RegistryTaskResp serverRequest;  // the answer to a request of the server
  std::uint64_t clientId = 0;             // 0: not known
  bool sendOnly = false;                  // the next exchange waits for no reply

 private:
  // The client name registered for localHostName, cut to fit the platform's name buffers; may be empty.
  std::string clientName();
  // The id as uploads and answers carry it: narrowed to 32 bits, signed.
  std::int64_t narrowedClientId() const;
  // Looks the client id up unless it is known; false when it stays unknown.
  bool findClientId(const std::string& name);
  // One exchange of `message`; the reply, if any, is in receivedMessage.
  bool exchange(const CNMessageBase& message);
  // Sends `message` without waiting for a reply.
  bool sendWithoutReply(const CNMessageBase& message);
};

// A number from hexadecimal text: every character that is not a hexadecimal digit is skipped, the total wraps
// modulo 2^64.
LQ_EXPORT std::uint64_t hextonum(const char* text);
