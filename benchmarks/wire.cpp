#include "benchmarks/wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "benchmarks/rounds.h"
#include "lqregistry/CLqNetwork.h"

namespace bench {

struct Endpoint::Secret {
  std::string identity;
  std::string key;
};

namespace {

constexpr std::size_t kHeaderBytes = 5;
constexpr std::size_t kReadAheadBytes = 64U << 10;  // several records with one system call
constexpr const char* kAttachText =
    "<Session.AttachRequest version=\"1\" library=\"sLNREGKEYMANAGER\" entry=\"sLPREGKEYMANAGER\" "
    "caller=\"floor\"/>";

Endpoint::Secret& secretOf(SSL* connection) {
  return *static_cast<Endpoint::Secret*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
}

unsigned int giveKey(const Endpoint::Secret& secret, unsigned char* key) {
  std::copy(secret.key.begin(), secret.key.end(), key);
  return static_cast<unsigned int>(secret.key.size());
}

unsigned int serverKey(SSL* connection, const char* identity, unsigned char* key, unsigned int /*room*/) {
  const auto& secret = secretOf(connection);
  return secret.identity == identity ? giveKey(secret, key) : 0;
}

unsigned int callerKey(SSL* connection, const char* /*hint*/, char* identity, unsigned int /*identityRoom*/,
                       unsigned char* key, unsigned int /*room*/) {
  const auto& secret = secretOf(connection);
  std::copy_n(secret.identity.c_str(), secret.identity.size() + 1, identity);
  return giveKey(secret, key);
}

sockaddr_in placeOf(const std::string& address) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(kPort);
  demand(inet_pton(AF_INET, address.c_str(), &place.sin_addr) == 1, "bad address " + address);
  return place;
}

// Otherwise a small frame waits for the other end's delayed acknowledgement of the one before.
void sendAtOnce(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

char* Buffer::room(std::size_t size) {
  if (size > capacity_) {
    bytes_ = std::make_unique_for_overwrite<char[]>(size);
    capacity_ = size;
  }
  size_ = size;
  return bytes_.get();
}

std::string frameOf(FrameKind kind, std::string_view payload) {
  std::string frame;
  frame.reserve(kHeaderBytes + payload.size());
  for (const unsigned shift : {24U, 16U, 8U, 0U})
    frame += static_cast<char>((payload.size() + 1) >> shift & 0xFFU);
  frame += static_cast<char>(kind);
  return frame.append(payload);
}

Wire::~Wire() {
  SSL_free(connection_);
  close(socket_);
}

void Wire::send(const std::string& frame) {
  std::size_t written = 0;
  demand(SSL_write_ex(connection_, frame.data(), frame.size(), &written) == 1, "a frame was not sent");
}

bool Wire::readExactly(char* bytes, std::size_t size) {
  for (std::size_t have = 0; have < size;) {
    std::size_t got = 0;
    if (SSL_read_ex(connection_, bytes + have, size - have, &got) != 1) return false;
    have += got;
  }
  return true;
}

FrameKind Wire::receive(Buffer& payload) {
  char header[kHeaderBytes];
  if (!readExactly(header, kHeaderBytes)) return FrameKind::kNone;
  std::size_t length = 0;
  for (std::size_t i = 0; i < 4; ++i) length = length << 8 | static_cast<unsigned char>(header[i]);
  const bool isWhole = readExactly(payload.room(length - 1), length - 1);
  return isWhole ? static_cast<FrameKind>(header[4]) : FrameKind::kNone;
}

void Wire::part() {
  send(frameOf(FrameKind::kGoodbye, {}));
  Buffer answer;
  demand(receive(answer) == FrameKind::kGoodbye, "the goodbye was not answered");
}

Endpoint::Endpoint(Role role, const std::string& identity, const std::string& keyHex)
    : secret_(new Secret{identity, {}}),
      context_(SSL_CTX_new(role == Role::kCaller ? TLS_client_method() : TLS_server_method())) {
  demand(sessionKeyFromHex(keyHex, secret_->key), "bad session key");
  SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION);
  SSL_CTX_set_ciphersuites(context_, "TLS_AES_128_GCM_SHA256");
  SSL_CTX_set_app_data(context_, secret_.get());
  SSL_CTX_set_num_tickets(context_, 0);
  SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_read_ahead(context_, 1);
  SSL_CTX_set_default_read_buffer_len(context_, kReadAheadBytes);
  SSL_CTX_set_psk_server_callback(context_, serverKey);
  SSL_CTX_set_psk_client_callback(context_, callerKey);
}

Endpoint::~Endpoint() {
  SSL_CTX_free(context_);
}

std::unique_ptr<Wire> Endpoint::call(const std::string& address) const {
  const sockaddr_in place = placeOf(address);
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sendAtOnce(socket);
  SSL* const connection = SSL_new(context_);
  SSL_set_fd(connection, socket);
  SSL_set_connect_state(connection);
  auto wire = std::make_unique<Wire>(connection, socket);
  demand(connect(socket, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0,
         "no connection to " + address);
  static const std::string attach = frameOf(FrameKind::kAttach, kAttachText);
  wire->send(attach);  // makes the handshake first
  Buffer answer;
  demand(wire->receive(answer) == FrameKind::kConfirm, "not attached");
  return wire;
}

std::unique_ptr<Wire> Endpoint::answer(int socket) const {
  sendAtOnce(socket);
  SSL* const connection = SSL_new(context_);
  SSL_set_fd(connection, socket);
  SSL_set_accept_state(connection);
  return std::make_unique<Wire>(connection, socket);
}

int listenAt(const std::string& address) {
  const sockaddr_in place = placeOf(address);
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const bool isListening = bind(listener, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0 &&
                           listen(listener, SOMAXCONN) == 0;
  demand(isListening, "cannot listen at " + address);
  return listener;
}

}  // namespace bench
