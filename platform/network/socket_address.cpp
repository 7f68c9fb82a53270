#include "platform/network/socket_address.h"

#include <netdb.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList look(const std::string& host, int flags, int& fault) {
  addrinfo wanted{};
  wanted.ai_family = AF_UNSPEC;
  wanted.ai_socktype = SOCK_STREAM;
  wanted.ai_flags = flags;
  addrinfo* found = nullptr;
  fault = getaddrinfo(host.c_str(), nullptr, &wanted, &found);
  return {fault == 0 ? found : nullptr, &freeaddrinfo};
}

SocketAddress copyOf(const addrinfo& entry) {
  SocketAddress address;
  std::memcpy(&address.storage, entry.ai_addr, entry.ai_addrlen);
  address.size = entry.ai_addrlen;
  return address;
}

}  // namespace

void SocketAddress::setPort(std::uint16_t port) {
  if (storage.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6&>(storage).sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in&>(storage).sin_port = htons(port);
  }
}

std::string SocketAddress::host() const {
  char name[NI_MAXHOST] = {};
  getnameinfo(get(), size, name, sizeof name, nullptr, 0, NI_NUMERICHOST);
  return name;
}

std::string SocketAddress::network() const {
  constexpr std::size_t kHostPart = 8;  // bytes; the rest of the address a machine chooses itself
  SocketAddress wide = *this;
  auto& v6 = reinterpret_cast<sockaddr_in6&>(wide.storage).sin6_addr;
  if (storage.ss_family == AF_INET6 && !IN6_IS_ADDR_V4MAPPED(&v6))
    std::memset(v6.s6_addr + kHostPart, 0, kHostPart);
  return wide.host();
}

std::string SocketAddress::text() const {
  const in_port_t port = storage.ss_family == AF_INET6
                             ? reinterpret_cast<const sockaddr_in6&>(storage).sin6_port
                             : reinterpret_cast<const sockaddr_in&>(storage).sin_port;
  return host() + " port " + std::to_string(ntohs(port));
}

bool parseAddress(const std::string& text, std::uint16_t port, SocketAddress& address) {
  int fault = 0;
  const AddressList found = look(text, AI_NUMERICHOST, fault);
  if (found == nullptr) return false;
  address = copyOf(*found);
  address.setPort(port);
  return true;
}

std::vector<SocketAddress> resolveHost(const std::string& host, std::string& fault) {
  int code = 0;
  const AddressList found = look(host, AI_ADDRCONFIG, code);
  std::vector<SocketAddress> all;
  for (const addrinfo* entry = found.get(); entry != nullptr; entry = entry->ai_next)
    all.push_back(copyOf(*entry));
  fault = gai_strerror(code);
  return all;
}
