/* Finding and loading the platform's engine. OpenSSL 3 has engines, and calls them deprecated. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/engine.h>

#include <mutex>

#include "cert/cert_engine.h"
#include "cert/cert_table.h"
#include "cert/pem_file.h"
#include "common/log.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr char kEngineId[] = "openssl_engine";
constexpr char kEnginePath[] = "/system/lib64/libopenssl_engine.so";

/* The first load is one thread's: others find the engine in OpenSSL's list once it is whole. */
constinit std::mutex loading;

/* One step of the "dynamic" engine; false, with a record under the caller's name. */
bool command(const char *function, ENGINE *dynamic, const char *name, const char *text) {
    const int result = text != nullptr ? ENGINE_ctrl_cmd_string(dynamic, name, text, 0)
                                       : ENGINE_ctrl_cmd(dynamic, name, 1, nullptr, nullptr, 0);
    if (result != 1) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "ENGINE_ctrl_cmd_string %s failed",
                      name);
        return false;
    }
    return true;
}

ENGINE *loadEngine(const char *function) {
    const EngineOwner dynamic(ENGINE_by_id("dynamic"));
    if (dynamic == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "ENGINE_by_id failed");
        return nullptr;
    }
    const NativePath path(kEnginePath);
    if (!command(function, dynamic.get(), "SO_PATH", openable(path)) ||
        !command(function, dynamic.get(), "ID", kEngineId) ||
        !command(function, dynamic.get(), "LIST_ADD", nullptr) ||
        !command(function, dynamic.get(), "LOAD", nullptr)) {
        return nullptr;
    }
    ENGINE *engine = ENGINE_by_id(kEngineId);
    if (engine == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "FAILED to load engine");
        return nullptr;
    }
    /* Kept for good: later calls use the engine without initialising it again. */
    (void)ENGINE_init(engine);
    return engine;
}

}  // namespace

void releaseEngine(ENGINE *engine) {
    (void)ENGINE_free(engine);
}

ENGINE *GetOpensslEngine() {
    const std::lock_guard guard(loading);
    ERR_set_mark();
    ENGINE *engine = ENGINE_by_id(kEngineId);
    ERR_pop_to_mark();
    if (engine != nullptr) {
        CONF_LOG(CONF_LOG_INFO, "ssl_engine has loaded");
        return engine;
    }
    return loadEngine(__func__);
}

EVP_PKEY *loadEngineKey(ENGINE *engine, const char *keyId) {
    return ENGINE_load_private_key(engine, keyId, nullptr, nullptr);
}
