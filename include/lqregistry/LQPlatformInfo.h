// LQPlatformInfo and the LQPI_ views: registry access and facts about this machine, as seen from one
// installation instance (the "focus").
//
// Key paths: "~" is the instance's root and "~A/B" a key below it; a path that begins with "SOFTWARE" is
// absolute; any other path, the empty one included, is relative to the instance root. Components are joined
// by "/"; empty components are dropped. Names are case-sensitive byte strings without NUL.
//
// An object is a light view on the process's registry connections, with a focus and a last error of its
// own; it is used by one thread at a time, any number of objects at once. Nothing is thrown. A real platform
// library provides the same operations over its own store and its own knowledge of the machine; the sections
// and value names behind each fact (given at each operation) are this layer's, written by `lqhost join`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "lqregistry/LqExport.h"

// What getRegError returns after a call. The first three are what callers compare with.
inline constexpr int kRegOk = 0;
inline constexpr int kRegKeyMissing = -2;
inline constexpr int kRegValueMissing = -3;
inline constexpr int kRegBufferTooSmall = -4;
inline constexpr int kRegBadName = -5;      // too long, or holds a NUL byte, or an empty value name
inline constexpr int kRegUnavailable = -6;  // the file is damaged, locked, read-only, full or unreadable

// Bits of getLQPlatformType.
inline constexpr unsigned kPlatformServer = 1;  // the management server's own machine
inline constexpr unsigned kPlatformWindows = 2;
inline constexpr unsigned kPlatformUnix = 4;

namespace lqregistry {
struct Outcome;
}

class LQ_EXPORT LQPlatformInfo {
 public:
  // Focused on the process's current instance (LQPI_Focus), or on `focus`; null means the current instance.
  explicit LQPlatformInfo(const char* focus = nullptr);

  void setFocus(const std::string& focus) { focus_ = focus; }
  const std::string& focus() const { return focus_; }

  // --- values as bytes -------------------------------------------------------------------------------------

  // Reads a value. `size` holds the buffer's size going in; coming out, the bytes written, the NUL that is
  // put after the data counted. `type` comes out as the type it was stored with. A value that does not fit is
  // kRegBufferTooSmall, never cut; buffer and size are unchanged on every failure.
  bool getRegValue(const std::string& key, const std::string& name, unsigned& type, void* buffer, int& size);

  // Writes a value of an existing key (kRegKeyMissing otherwise), `length` bytes from `data`; null and 0
  // write an empty value. A value that already holds these bytes and this type is not written again.
  bool setRegValue(const std::string& key, const std::string& name, unsigned type, const void* data,
                   int length);

  // Makes a key and its parents exist; true also when it was there.
  bool createRegKey(const std::string& key);

  // Removes a key with everything below it. kRegKeyMissing when it is not there. "SOFTWARE",
  // "SOFTWARE/Velmor" and what lies directly below (every instance's root, the machine's clients) are refused
  // (kRegBadName): no single record takes a whole instance away.
  bool delRegKey(const std::string& key);

  // Removes a value. kRegKeyMissing or kRegValueMissing when it is not there.
  bool delRegField(const std::string& key, const std::string& name);

  // Appends the names of the key's children, ascending. True also when it has none.
  bool getSubKeys(const std::string& key, std::list<std::string>& names);

  // Fills `values` with name and data of every value of the key.
  bool getRegValues(const std::string& key, std::map<std::string, std::string>& values);

  // The outcome of this object's last registry call, and a text that names file, key and value.
  int getRegError() const { return lastError_; }
  std::string getRegErrorText() const;

  // --- values as text, by section --------------------------------------------------------------------------

  // Reading returns false and leaves `out` unchanged when the value is absent, or is not a number where one
  // is asked for (kRegValueMissing, too). Writing creates the section; setString returns non-zero on success,
  // its flag is ignored.
  bool getString(const std::string& section, const std::string& name, std::string& out);
  int setString(const std::string& section, const std::string& name, const std::string& value, int flag);
  bool getNumber(const std::string& section, const std::string& name, std::int64_t& out);
  bool setNumber(const std::string& section, const std::string& name, std::int64_t value);
  // A directory is a string without "/" at its end.
  bool getDirectory(const std::string& section, const std::string& name, std::string& out);

  // --- facts -----------------------------------------------------------------------------------------------

  // The management server's host name ("Overhub"/"sOHHOSTNAME") into a buffer of 1024 characters; an empty
  // text and false when it is not known.
  bool findOverhubHostName(char* buffer);

  // The management server's client name ("Overhub"/"sOHCLIENTNAME") into a buffer of `size` characters.
  bool getOverhubClientName(char* buffer, std::size_t size);

  // The physical machine name ("Machine"/"sPHYSICALNAME"), or null. Valid until the next call on this object.
  const char* getPhysicalMachine();

  // This client's host name for a machine name ("Machine"/"sHOSTNAME" for this machine, else the machine name
  // itself), cut at `max` characters, into a buffer of at least max + 1; empty and false for a null machine.
  bool getClientHostName(const char* machine, char* buffer, std::size_t max);

  // The client name registered for a host name (key "Hosts/<host>", value "sCLIENTNAME"); `out` empty and
  // false when there is none.
  bool getClientNameFromHostName(const std::string& host, std::string& out);

  // The platform bits ("Machine"/"nPLATFORMTYPE"); kPlatformUnix when nothing is recorded.
  unsigned getLQPlatformType();

 private:
  // Where the key of a call lies; it is kept, because a batch's records come key by key.
  struct Place {
    std::string key;
    std::string instance;
    std::string path;  // empty before the first
  };
  // What the last call failed with; the text is put together for whoever asks.
  struct Failure {
    std::string reason;
    std::string key;
    std::string name;  // empty when the call was about a key
  };

  lqregistry::Outcome locate(const std::string& key);
  bool record(lqregistry::Outcome outcome, const std::string& key, const std::string& name = {});
  // A call about a key, or about a value: `step` runs once it is located, and what it came to is recorded.
  template <class Step>
  bool onKey(const std::string& key, const Step& step);
  template <class Step>
  bool onValue(const std::string& key, const std::string& name, const Step& step);
  // A call that writes, which a WriteWatch hears of.
  template <class Write>
  bool watched(const std::string& key, const std::string& name, const Write& write);

  std::string focus_;
  Place place_;
  std::string physicalMachine_;
  int lastError_ = kRegOk;
  Failure failure_;
};

// The process's current instance.
class LQ_EXPORT LQPI_Focus {
 public:
  // The instance name, or null when the host has set none. The text stays valid for the life of the process.
  static const char* getFocus();
  // Set by the host before it calls the product; null or empty clears it.
  static void setFocus(const char* focus);
};

// The session with the management server, as far as this machine knows of it. The constructor's two numbers
// belong to the platform and are ignored here.
class LQ_EXPORT LQPI_Session {
 public:
  LQPI_Session(int, int) {}
  void setFocus(const char* focus);
  // Non-zero until this client has finished joining the server ("Session"/"bANTICHATTER"; on if absent).
  int IsAntiChatterFlagOn();

 private:
  LQPlatformInfo info_;
};

class LQ_EXPORT LQPI_EventManager {
 public:
  LQPI_EventManager(int, int) {}
  // The log directory ("EventManager"/"dOBLOGDIR"), or null. Valid until the next call on this object.
  const char* getLogFilesDirectory();

 private:
  LQPlatformInfo info_;
  std::string directory_;
};

// Directories of the installation. A text is valid until the next call on the same object.
class LQ_EXPORT LQPI_Base {
 public:
  // The installation home ("Base"/"dVELMORHOME"), or null.
  const char* getVelmorDirectory();

 private:
  LQPlatformInfo info_;
  std::string directory_;
};

class LQ_EXPORT LQPI_PlatformBase {
 public:
  // The base home directory ("Base"/"dBASEHOME"), or null.
  const char* getBaseHomeDirectory();

  // Whether the Spoolhand component is fully installed ("Packages"/"bFULLSPOOLHAND" is a non-zero number).
  bool IsFullSHInstalled();

  // Whether the package of this number is installed ("Packages"/"nPACKAGE_<number>" is non-zero).
  bool IsThisPackageInstalled(int package);

 private:
  LQPlatformInfo info_;
  std::string directory_;
};
