#include "platform/network/tls_psk.h"

#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>

namespace {

// The suite whose hash (SHA-256) external keys use by default, so that ordinary diagnostic tools can join in.
constexpr char kCipherSuite[] = "TLS_AES_128_GCM_SHA256";
constexpr unsigned char kCipherSuiteId[] = {0x13, 0x01};

// A context's own data is its TlsPsk, a connection's the text that gets the caller's identity.
const TlsPsk& configurationOf(SSL* connection) {
  return *static_cast<const TlsPsk*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
}

// An external key in the form that TLS 1.3 takes it: a session that never happened. Null on failure.
SSL_SESSION* sessionFromKey(SSL* connection, const std::string& key) {
  SSL_SESSION* session = SSL_SESSION_new();
  const SSL_CIPHER* suite = SSL_CIPHER_find(connection, kCipherSuiteId);
  if (session != nullptr && suite != nullptr &&
      SSL_SESSION_set1_master_key(session, reinterpret_cast<const unsigned char*>(key.data()), key.size()) ==
          1 &&
      SSL_SESSION_set_cipher(session, suite) == 1 &&
      SSL_SESSION_set_protocol_version(session, TLS1_3_VERSION) == 1)
    return session;
  SSL_SESSION_free(session);
  return nullptr;
}

int offerKey(SSL* connection, const EVP_MD* /*hash: there is one suite*/, const unsigned char** identity,
             std::size_t* identityBytes, SSL_SESSION** session) {
  const Credentials& own = configurationOf(connection).credentials();
  *session = sessionFromKey(connection, own.key);
  *identity = reinterpret_cast<const unsigned char*>(own.identity.data());
  *identityBytes = own.identity.size();
  return *session != nullptr ? 1 : 0;
}

int findKey(SSL* connection, const unsigned char* identity, std::size_t identityBytes,
            SSL_SESSION** session) {
  try {
    auto& caller = *static_cast<std::string*>(SSL_get_app_data(connection));
    caller.assign(reinterpret_cast<const char*>(identity), std::min(identityBytes, kMaxIdentityBytes + 1));
    std::string key = configurationOf(connection).keyOf(caller);
    *session = sessionFromKey(connection, key);
    OPENSSL_cleanse(key.data(), key.size());
    return *session != nullptr ? 1 : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

}  // namespace

TlsPsk::TlsPsk(Credentials& credentials) : context_(SSL_CTX_new(TLS_client_method())) {
  credentials_.identity.swap(credentials.identity);
  credentials_.key.swap(credentials.key);
  configure();
  SSL_CTX_set_psk_use_session_callback(context_, offerKey);
  // A server without the key could still offer a certificate; none is trusted.
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
}

std::shared_ptr<const TlsPsk> TlsPsk::ofCaller(Credentials& credentials) {
  static std::mutex mutex;
  static std::shared_ptr<const TlsPsk> last;
  const std::lock_guard lock(mutex);
  if (last == nullptr || !last->credentials_.equals(credentials))
    last = std::make_shared<TlsPsk>(credentials);
  return last;
}

TlsPsk::TlsPsk(LqListener::KeyLookup lookup)
    : lookup_(std::move(lookup)), context_(SSL_CTX_new(TLS_server_method())) {
  configure();
  SSL_CTX_set_psk_find_session_callback(context_, findKey);
}

TlsPsk::~TlsPsk() {
  SSL_CTX_free(context_);
}

void TlsPsk::configure() {
  if (context_ == nullptr) throw std::runtime_error("TLS is not available on this machine");
  SSL_CTX_set_app_data(context_, this);
  SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION);
  SSL_CTX_set_max_proto_version(context_, TLS1_3_VERSION);
  SSL_CTX_set_ciphersuites(context_, kCipherSuite);
  SSL_CTX_set_num_tickets(context_, 0);
  // A long text goes out record by record, each against the deadline; and a silent session holds no buffers.
  SSL_CTX_set_mode(context_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_RELEASE_BUFFERS);
  // A read ends after a record that brings no data, so that a stream of such records cannot keep the thread
  // that watches everybody.
  SSL_CTX_clear_mode(context_, SSL_MODE_AUTO_RETRY);
}

ssl_st* TlsPsk::newConnection(std::string& identity) const {
  SSL* connection = SSL_new(context_);
  if (connection == nullptr) throw std::bad_alloc();
  SSL_set_app_data(connection, &identity);
  return connection;
}

std::string TlsPsk::keyOf(const std::string& identity) const {
  std::string key;
  const bool known = !identity.empty() && identity.size() <= kMaxIdentityBytes && lookup_(identity, key) &&
                     key.size() == kSessionKeyBytes;
  if (known) return key;
  OPENSSL_cleanse(key.data(), key.size());
  key.assign(kSessionKeyBytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(key.data()), static_cast<int>(key.size())) != 1)
    throw std::runtime_error("no randomness");
  return key;
}

bool usedSharedKey(const ssl_st* connection) {
  return SSL_session_reused(connection) == 1;
}
