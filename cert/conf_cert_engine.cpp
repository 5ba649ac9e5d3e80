/* Finding and loading the platform's engine. OpenSSL 3 has engines, and calls them deprecated. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/engine.h>
#include <sched.h>

#include <atomic>

#include "cert/cert_engine.h"
#include "cert/cert_table.h"
#include "common/log.h"

namespace {

constexpr const char *kUnit = kCertUnit;

constexpr char kEngineId[] = "openssl_engine";
constexpr char kEnginePath[] = "/system/lib64/libopenssl_engine.so";

/* Loads between an engine's appearance in OpenSSL's list and its initialisation. */
constinit std::atomic<uint32_t> loadsUnderWay{0};

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
    ERR_set_mark();
    ENGINE *engine = ENGINE_by_id(kEngineId);
    ERR_pop_to_mark();
    if (engine != nullptr) {
        /* Another thread's first load may have got no further than the list. */
        while (loadsUnderWay.load(std::memory_order_acquire) != 0) {
            sched_yield();
        }
        CONF_LOG(CONF_LOG_INFO, "ssl_engine has loaded");
        return engine;
    }
    loadsUnderWay.fetch_add(1, std::memory_order_acq_rel);
    engine = loadEngine(__func__);
    loadsUnderWay.fetch_sub(1, std::memory_order_acq_rel);
    return engine;
}

EVP_PKEY *loadEngineKey(ENGINE *engine, const char *keyId) {
    return ENGINE_load_private_key(engine, keyId, nullptr, nullptr);
}
