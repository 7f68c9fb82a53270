#include "platform/network/socket_bio.h"

#include <openssl/bio.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <new>

namespace {

int descriptorOf(BIO* bio) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool isPassing(int fault) {
  return fault == EAGAIN || fault == EWOULDBLOCK || fault == EINTR;
}

// What a call on the socket came to. One BIO serves both directions, so what the other one left is cleared: a
// fault that looks as if it passed would be tried again for ever.
int outcomeOf(BIO* bio, ssize_t result, int direction) {
  BIO_clear_retry_flags(bio);
  if (result < 0 && isPassing(errno)) BIO_set_flags(bio, direction | BIO_FLAGS_SHOULD_RETRY);
  return static_cast<int>(result);
}

int writeSome(BIO* bio, const char* data, int size) {
  return outcomeOf(bio, ::send(descriptorOf(bio), data, static_cast<std::size_t>(size), MSG_NOSIGNAL),
                   BIO_FLAGS_WRITE);
}

int readSome(BIO* bio, char* data, int size) {
  const int got =
      outcomeOf(bio, ::recv(descriptorOf(bio), data, static_cast<std::size_t>(size), 0), BIO_FLAGS_READ);
  if (got == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return got;
}

long control(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_EOF) return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

const BIO_METHOD* socketMethod() {
  static const BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
    if (made == nullptr) throw std::bad_alloc();
    BIO_meth_set_write(made, writeSome);
    BIO_meth_set_read(made, readSome);
    BIO_meth_set_ctrl(made, control);
    return made;
  }();
  return method;
}

}  // namespace

bio_st* newSocketBio(int descriptor) {
  BIO* const bio = BIO_new(socketMethod());
  if (bio == nullptr) throw std::bad_alloc();
  // The library keeps a pointer for us; a number is all that we need it to keep.
  const auto number = static_cast<std::intptr_t>(descriptor);
  BIO_set_data(bio, reinterpret_cast<void*>(number));  // NOLINT(performance-no-int-to-ptr)
  BIO_set_init(bio, 1);
  return bio;
}
