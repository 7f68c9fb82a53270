// The settings of the product registry that these libraries and programs read or write themselves, each by
// the key that holds it and its value's name. The names are the platform's; modules read some of them, too.
//
//   info.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, host);
//
// Keys are relative to the root of the instance unless they begin with "SOFTWARE".
#pragma once

#include <string_view>

namespace lqsettings {

// What key paths begin with: those of the instance, and absolute ones. The keys of all instances lie below
// kInstancesKey, each by its instance's name.
inline constexpr const char* kInstanceRoot = "~";
inline constexpr const char* kAbsoluteRoot = "SOFTWARE";
inline constexpr const char* kInstancesKey = "SOFTWARE/Velmor";

// The environment variables that name the instance and the registry file.
inline constexpr const char* kInstanceVariable = "VELMOR_VM";
inline constexpr const char* kFileVariable = "VELMOR_REGISTRY";

struct Setting {
  const char* key;
  const char* name;
};

// The management server, and how this machine proves itself to it. Written by joining.
inline constexpr const char* kServerKey = "Overhub";
inline constexpr Setting kServerHost{kServerKey, "sOHHOSTNAME"};
inline constexpr Setting kServerName{kServerKey, "sOHCLIENTNAME"};
inline constexpr Setting kSessionIdentity{kServerKey, "sSESSIONIDENTITY"};
inline constexpr Setting kSessionKey{kServerKey, "sSESSIONKEY"};  // 64 hexadecimal digits, a secret

// Other than 0 until this client has finished joining.
inline constexpr const char* kSessionsKey = "Session";
inline constexpr Setting kAntiChatter{kSessionsKey, "bANTICHATTER"};

// This machine.
inline constexpr const char* kMachineKey = "Machine";
inline constexpr Setting kPhysicalMachine{kMachineKey, "sPHYSICALNAME"};
inline constexpr Setting kHostName{kMachineKey, "sHOSTNAME"};
inline constexpr Setting kPlatformType{kMachineKey, "nPLATFORMTYPE"};  // bits, see LQPlatformInfo.h

// Where things lie.
inline constexpr const char* kBaseKey = "Base";
inline constexpr Setting kVelmorHome{kBaseKey, "dVELMORHOME"};
inline constexpr Setting kBaseHome{kBaseKey, "dBASEHOME"};
inline constexpr Setting kLogDirectory{"EventManager", "dOBLOGDIR"};
inline constexpr const char* kLogFolder =
    "Log_Files";  // below kVelmorHome, unless kLogDirectory says otherwise

// What the two tasks and the log checks do.
inline constexpr Setting kSyncEnabled{"EventManager", "bEnableRegistrySync"};
inline constexpr Setting kRefreshMinutes{"QMachineMaint", "nTimer_AdditionalSettingsRefresh"};
inline constexpr Setting kLogPruneDisabled{"Spoolhand", "nDisableLMPrune"};

// Installed components.
inline constexpr const char* kPackagesKey = "Packages";
inline constexpr Setting kFullSpoolhand{kPackagesKey, "bFULLSPOOLHAND"};
inline constexpr const char* kPackagePrefix = "nPACKAGE_";  // followed by the package's number

// Other clients, by host name: the key is this one, "/" and the host's name.
inline constexpr const char* kHostsKey = "Hosts";
inline constexpr const char* kClientOfHost = "sCLIENTNAME";

// Clients by their names, and properties of clients by their ids: the name or the id follows the key.
inline constexpr const char* kClientsKey = "SOFTWARE/Velmor/Clients/";
inline constexpr const char* kClientId = "nCLIENTID";
inline constexpr const char* kClientPropertiesKey = "SOFTWARE/Velmor/ClientProperties/";
static_assert(std::string_view(kInstancesKey).starts_with(kAbsoluteRoot) &&
              std::string_view(kClientsKey).starts_with(kInstancesKey) &&
              std::string_view(kClientPropertiesKey).starts_with(kInstancesKey));

}  // namespace lqsettings
