/* The platform's OpenSSL engine, which signs with keys that never leave it. */
#pragma once

#include <openssl/types.h>

#include "common/openssl_owner.h"

/* Gives back a reference of ENGINE_by_id. */
void releaseEngine(ENGINE *engine);

using EngineOwner = OpensslOwner<ENGINE, releaseEngine>;

/* The engine, loaded on first use; null, with a record, when it cannot be. */
ENGINE *GetOpensslEngine();

/* The private key that a key identifier stands for; null when the engine has none. */
EVP_PKEY *loadEngineKey(ENGINE *engine, const char *keyId);
