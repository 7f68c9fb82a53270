// `lqhost run`: the resident host service. Loads the product and the host's modules once, runs the periodic
// tasks, serves the server's requests, and stops in order when it is asked to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/host_service.h"
#include "lqhost/service/periodic_task.h"

namespace host {

struct RunOptions {
  std::string address = "0.0.0.0";
  std::uint16_t port = programs::kHostServicePort;
  std::uint32_t syncEvery = kDefaultFrequency;  // seconds
  std::uint32_t spread = kDefaultSpread;        // seconds
  std::vector<std::string> modules;
};

// Stays until SIGTERM or SIGINT; the program's exit code.
int run(const RunOptions& options);

}  // namespace host
