// How TLS reads and writes its socket: without waiting, and without the signal that OpenSSL's own way raises
// in the host process when the peer has gone.
#pragma once

struct bio_st;

// A BIO on a non-blocking socket, which it does not own. Throws std::bad_alloc.
bio_st* newSocketBio(int descriptor);
