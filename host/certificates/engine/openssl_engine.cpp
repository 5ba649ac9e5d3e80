/* The engine "openssl_engine": private keys that sign and decrypt without leaving it, by their identifiers.
 *
 * It lies in a device root (system/lib64/), and its keys in that root's keys/. OpenSSL 3 has engines, and
 * calls them deprecated. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/engine.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "host/certificates/key.h"
#include "kept_key.h"

namespace {

using namespace tamo::certificates;

constexpr char kEngineId[] = "openssl_engine";
constexpr char kEngineName[] = "Keys of the device's certificates";
constexpr char kKeysFromHere[] = "../../keys";

EVP_PKEY *refuse(const char *identifier, const char *why) {
    ERR_raise_data(ERR_LIB_ENGINE, ENGINE_R_FAILED_LOADING_PRIVATE_KEY, "key %.64s: %s", identifier,
                   why);
    return nullptr;
}

/* The directory of the keys; -1 when the engine lies in no device root. */
int openKeys() {
    Dl_info self;
    char path[PATH_MAX];
    if (dladdr(reinterpret_cast<const void *>(&openKeys), &self) == 0) {
        return -1;
    }
    const char *name = strrchr(self.dli_fname, '/');
    const int directory = name == nullptr ? 0 : static_cast<int>(name + 1 - self.dli_fname);
    const int length =
        snprintf(path, sizeof(path), "%.*s%s", directory, self.dli_fname, kKeysFromHere);
    return length < static_cast<int>(sizeof(path)) ? open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                                   : -1;
}

KeyOwner readKept(int keys, const char *identifier) {
    char name[KeyIdentifier::kLength + 16];
    SecretFile pem;
    Passphrase phrase;
    (void)snprintf(name, sizeof(name), "%s.pem", identifier);
    return readSecretFile(keys, name, &pem) == 0 && readPassphraseLine(pem, &phrase)
               ? readPrivateKey(pem.bio.get(), &phrase)
               : nullptr;
}

EVP_PKEY *loadPrivateKey(ENGINE *, const char *identifier, UI_METHOD *, void *) {
    if (!isKeyIdentifier(identifier)) {
        return refuse(identifier == nullptr ? "(none)" : identifier, "not a key identifier");
    }
    const int keys = openKeys();
    KeyOwner kept = keys < 0 ? nullptr : readKept(keys, identifier);
    if (keys >= 0) {
        close(keys);
    }
    KeyIdentifier found;
    if (kept == nullptr) {
        return refuse(identifier,
                      "the engine does not have it, or cannot open it: install the "
                      "certificate with its key again");
    }
    if (!identifyKey(kept.get(), &found) || strcmp(found.text, identifier) != 0) {
        return refuse(identifier, "another key lies in its place");
    }
    return openssl_engine::makeKeyObject(std::move(kept));
}

int bind(ENGINE *engine, const char *id) {
    if (id != nullptr && strcmp(id, kEngineId) != 0) {
        return 0;
    }
    return ENGINE_set_id(engine, kEngineId) == 1 && ENGINE_set_name(engine, kEngineName) == 1 &&
                   ENGINE_set_load_privkey_function(engine, loadPrivateKey) == 1
               ? 1
               : 0;
}

}  // namespace

/* What OpenSSL looks for in an engine's shared object. */
#pragma GCC visibility push(default)
extern "C" {
IMPLEMENT_DYNAMIC_CHECK_FN()
IMPLEMENT_DYNAMIC_BIND_FN(bind)
}
#pragma GCC visibility pop
