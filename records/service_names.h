// The remote libraries and entries that sessions attach to: what an attach request names.
#pragma once

// The management server's registry manager, which clients attach to.
inline constexpr const char* kServerLibraryName = "sLNREGKEYMANAGER";
inline constexpr const char* kServerEntryName = "sLPREGKEYMANAGER";

// What clients' hosts report to, on the management server.
inline constexpr const char* kReportLibraryName = "sLNHOSTREPORTSRV";
inline constexpr const char* kReportEntryName = "sLPHOSTREPORTSRV";

// A client's host service, which the management server attaches to.
inline constexpr const char* kHostLibraryName = "sLNREGKEYMANAGERCLNT";
inline constexpr const char* kHostEntryName = "sLPREGKEYMANAGERCLNT";
