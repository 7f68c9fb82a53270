#include "tests/support/scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ec.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace test_support {

namespace {

constexpr std::size_t kHeaderBytes = 5;

// OpenSSL writes with write(2). Only for the thread that plays the peer: elsewhere a SIGPIPE is a fault that
// a test should die of.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

sockaddr_in addressOf(const std::string& address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) throw std::runtime_error("bad " + address);
  return result;
}

// Without it, small frames written one after the other wait for the other end's delayed acknowledgement.
void sendAtOnce(int descriptor) {
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int newSocket() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sendAtOnce(descriptor);
  return descriptor;
}

// As bind and connect take it.
template <class Call>
bool at(Call call, int descriptor, const std::string& address, std::uint16_t port) {
  const sockaddr_in place = addressOf(address, port);
  return call(descriptor, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
}

struct Secret {
  std::string identity;
  std::string key;
};

Secret& secretOf(SSL* connection) {
  return *static_cast<Secret*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
}

unsigned int giveKey(const Secret& secret, unsigned char* key, unsigned int room) {
  if (secret.key.size() > room) return 0;
  std::copy(secret.key.begin(), secret.key.end(), key);
  return static_cast<unsigned int>(secret.key.size());
}

unsigned int serverKey(SSL* connection, const char* identity, unsigned char* key, unsigned int room) {
  const Secret& secret = secretOf(connection);
  return secret.identity == identity ? giveKey(secret, key, room) : 0;
}

unsigned int clientKey(SSL* connection, const char*, char* identity, unsigned int identityRoom,
                       unsigned char* key, unsigned int room) {
  const Secret& secret = secretOf(connection);
  if (secret.identity.size() >= identityRoom) return 0;
  std::copy_n(secret.identity.c_str(), secret.identity.size() + 1, identity);
  return giveKey(secret, key, room);
}

std::string bytesOfHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

void useSelfSignedCertificate(SSL_CTX* context) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
  X509_set_pubkey(certificate, key);
  X509_sign(certificate, key, EVP_sha256());
  SSL_CTX_use_certificate(context, certificate);
  SSL_CTX_use_PrivateKey(context, key);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

}  // namespace

PlainSocket::PlainSocket() : descriptor_(newSocket()) {}

PlainSocket::~PlainSocket() {
  close(descriptor_);
}

bool PlainSocket::connectTo(const std::string& address, std::uint16_t port, const std::string& from) const {
  return at(bind, descriptor_, from, 0) && at(connect, descriptor_, address, port);
}

void PlainSocket::send(const std::string& bytes) const {
  ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

bool PlainSocket::isOpen() const {
  char byte = 0;
  return recv(descriptor_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

void PlainSocket::waitForClose() const {
  char buffer[4096];
  while (recv(descriptor_, buffer, sizeof buffer, 0) > 0) {
  }
}

void PlainSocket::reset() const {
  const sockaddr nobody{};  // whoever is connected to nobody any more has broken off
  connect(descriptor_, &nobody, sizeof nobody);
}

struct PeerSession::Tls {
  // Without a key, a certificate is all that it has to show.
  Tls(const SSL_METHOD* method, int descriptor, Secret ownSecret)
      : secret(std::move(ownSecret)), context(SSL_CTX_new(method)) {
    SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
    SSL_CTX_set_app_data(context, &secret);
    SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_psk_server_callback(context, serverKey);
    SSL_CTX_set_psk_client_callback(context, clientKey);
    if (secret.key.empty()) useSelfSignedCertificate(context);
    connection = SSL_new(context);
    SSL_set_fd(connection, descriptor);
  }
  ~Tls() {
    SSL_free(connection);
    SSL_CTX_free(context);
  }
  Tls(const Tls&) = delete;
  Tls& operator=(const Tls&) = delete;

  Secret secret;
  SSL_CTX* context;
  SSL* connection;
};

PeerSession::PeerSession(int descriptor, std::string identity, std::string keyHex)
    : PlainSocket(descriptor), identity_(std::move(identity)), keyHex_(std::move(keyHex)) {}

PeerSession::~PeerSession() = default;

std::unique_ptr<PeerSession> PeerSession::call(const std::string& address, std::uint16_t port,
                                               const std::string& identity, const std::string& keyHex) {
  auto session = std::make_unique<PeerSession>(newSocket(), identity, keyHex);
  if (!session->connectTo(address, port)) return nullptr;
  session->tls_ =
      std::make_unique<Tls>(TLS_client_method(), session->descriptor_, Secret{identity, bytesOfHex(keyHex)});
  return SSL_connect(session->tls_->connection) == 1 ? std::move(session) : nullptr;
}

bool PeerSession::handshake(bool withCertificate) {
  const Secret secret = withCertificate ? Secret() : Secret{identity_, bytesOfHex(keyHex_)};
  tls_ = std::make_unique<Tls>(TLS_server_method(), descriptor_, secret);
  return SSL_accept(tls_->connection) == 1;
}

bool PeerSession::readExactly(std::string& bytes) {
  for (std::size_t have = 0; have < bytes.size();) {
    std::size_t got = 0;
    if (SSL_read_ex(tls_->connection, bytes.data() + have, bytes.size() - have, &got) != 1) return false;
    have += got;
  }
  return true;
}

PeerFrame PeerSession::readFrame() {
  std::string header(kHeaderBytes, '\0');
  if (tls_ == nullptr || !readExactly(header)) return {};
  std::size_t length = 0;
  for (std::size_t i = 0; i < 4; ++i) length = length << 8 | static_cast<unsigned char>(header[i]);
  PeerFrame frame{header[4], std::string(length - 1, '\0')};
  return readExactly(frame.payload) ? frame : PeerFrame();
}

std::string PeerSession::frameHeader(int kind, std::size_t payloadBytes) {
  std::string bytes;
  for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>((payloadBytes + 1) >> shift & 0xFF);
  return bytes + static_cast<char>(kind);
}

void PeerSession::writeFrame(int kind, const std::string& payload) {
  writeInTls(frameHeader(kind, payload.size()) + payload);
}

void PeerSession::writeInTls(const std::string& bytes) {
  std::size_t written = 0;
  if (tls_ != nullptr) SSL_write_ex(tls_->connection, bytes.data(), bytes.size(), &written);
}

bool PeerSession::acceptAttach(const std::function<void(const std::string&)>& take) {
  if (!handshake()) return false;
  const PeerFrame request = readFrame();
  if (request.kind != kAttach) return false;
  if (take) take(request.payload);
  writeFrame(kConfirm);
  return true;
}

bool PeerSession::endsInOrder() {
  return readFrame().kind == 0 && (SSL_get_shutdown(tls_->connection) & SSL_RECEIVED_SHUTDOWN) != 0;
}

bool PeerSession::answerGoodbye() {
  for (;;) {
    const PeerFrame frame = readFrame();
    if (frame.kind == 0) return false;
    if (frame.kind != kGoodbye) continue;
    writeFrame(kGoodbye);
    return true;
  }
}

ScriptedPeer::ScriptedPeer(const std::string& address, std::uint16_t port, std::string identity,
                           std::string keyHex, Script script)
    : identity_(std::move(identity)),
      keyHex_(std::move(keyHex)),
      script_(std::move(script)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!at(bind, listener_, address, port) || listen(listener_, SOMAXCONN) != 0) {
    close(listener_);
    throw std::runtime_error("the scripted peer cannot listen on " + address);
  }
  thread_ = std::thread([this] { serve(); });
}

ScriptedPeer::~ScriptedPeer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    shutdown(listener_, SHUT_RDWR);
    if (current_ >= 0) shutdown(current_, SHUT_RDWR);
  }
  thread_.join();
  close(listener_);
}

void ScriptedPeer::serve() {
  blockBrokenPipeSignal();
  for (;;) {
    const int caller = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (caller < 0) return;
    sendAtOnce(caller);
    PeerSession session(caller, identity_, keyHex_);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      current_ = caller;
    }
    ++callers_;
    script_(session);
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = -1;
  }
}

}  // namespace test_support
