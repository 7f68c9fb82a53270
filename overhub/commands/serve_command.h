// The command that runs the server until it is asked to stop.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/log_options.h"
#include "lqregistry/CLqNetwork.h"
#include "overhub/store/data_store.h"

inline constexpr const char* kAnyAddress = "0.0.0.0";

struct ServeOptions {
  std::vector<std::string> addresses;  // empty: kAnyAddress
  std::vector<std::uint16_t> ports{kFirstServicePort, kSecondServicePort};
  programs::LogOptions log;
};

// Gives the program's exit code; does not return when sessions had to be cut off.
int serve(const DataStore& store, const ServeOptions& options);
