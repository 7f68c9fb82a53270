// Serves the management server's requests to this client: pushed batches, fetches of named values and
// application messages, each on a session of its own.
//
// Sessions wait in the listener without a thread each, and a few threads serve those that have a request, so
// that one slow session holds up nobody; only the server, which shares this client's session key, gets past
// the handshake. What a request asks for is done by the product; here it is only received, handed over and
// answered. A request that cannot be understood is declined with the reason.
#pragma once

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "lqregistry/CLqNetwork.h"

namespace host {

class RequestService {
 public:
  RequestService();
  ~RequestService();  // stops, and waits for the sessions under way
  RequestService(const RequestService&) = delete;
  RequestService& operator=(const RequestService&) = delete;

  // Listens and serves from now on.
  CWmError start(const std::string& address, std::uint16_t port);

 private:
  void serveSessions();

  LqListener listener_;
  std::vector<std::thread> threads_;
};

}  // namespace host
