/* Key objects whose private halves stay in the engine.
 *
 * What a program gets has the public half and, in its extra data, a reference to the private key here;
 * signing with it comes back here, and reading or writing the private half finds none. */
#pragma once
#include <openssl/evp.h>

#include "host/certificates/key.h"

namespace openssl_engine {

/* Makes the methods; false when there is no memory. */
bool prepareMethods();

/* The key methods of the engine for keys that have no method of their own (Ed25519), as OpenSSL asks. */
int findKeyMethod(struct engine_st *engine, EVP_PKEY_METHOD **method, const int **types, int type);

/* A key object for `kept`, which it takes over; null when its type is none of RSA, EC and Ed25519. */
EVP_PKEY *makeKeyObject(struct engine_st *engine, tamo::KeyOwner kept);

}  // namespace openssl_engine
