/* Key objects whose private halves stay in the engine.
 *
 * What a program gets has the public half and a reference to the private key here; signing and decrypting
 * with it come back here, and the private half cannot be read or written. */
#pragma once
#include "host/certificates/key.h"

namespace openssl_engine {

/* A key object for `kept`; null, with an OpenSSL error, for a type that isEngineType refuses. */
EVP_PKEY *makeKeyObject(KeyOwner kept);

}  // namespace openssl_engine
