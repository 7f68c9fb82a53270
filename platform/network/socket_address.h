// Addresses of both families as sockets take them, and as people read them.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_storage);

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* edit() { return reinterpret_cast<sockaddr*>(&storage); }

  void setPort(std::uint16_t port);
  std::string host() const;  // the bare address
  // What one machine is given: an IPv4 address, or the first half of an IPv6 one.
  std::string network() const;
  std::string text() const;  // "<address> port <port>"
};

// An address in digits; false when `text` is none.
bool parseAddress(const std::string& text, std::uint16_t port, SocketAddress& address);

// Every address of a host, looked up if need be, which may block; in `fault` why there is none.
std::vector<SocketAddress> resolveHost(const std::string& host, std::string& fault);
