/* Attacks what reads certificate and list files through the directory walks: ConfCertUpdateLdapCert and
 * ConfAddCancelCrlToSslctx. An input is one byte of choices and a file's contents; the certificate
 * service is this program's own. */
#include <openssl/ssl.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "fuzz/scratch.h"
#include "include/conf_cert.h"
#include "platform/tamo_conference_sslex.h"
#include "platform/tamo_om_cert_client.h"
#include "platform/tamo_om_cust_util.h"

namespace {

constexpr const char *kNames[] = {"a.pem", "B.PEM", "a_crl.pem", "CRL.crl"};

ConfOmCertHandler handler;

}  // namespace

int32_t TamoOmCertClientInit(void *) {
    return 0;
}
int32_t TamoOmCertNotifyCallback(ConfOmCertHandler registered) {
    handler = registered;
    return 0;
}
int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t, uint32_t, ConfCertPathInfo *info) {
    strcpy(info->certPath, kind == OM_CERT_PATH_CA ? "/data/ca" : "/data/crl");
    return 0;
}
int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t, ConfCertSizes *) {
    return 1;
}
const char *TamoOmCustUtilGetStoragePath(void) {
    return "/data/storage";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string root = fuzz::scratchRoot() + "/data";
    if (size == 0) {
        return 0;
    }
    for (const char *folder : {"/ca", "/crl", "/storage"}) {
        std::filesystem::remove_all(root + folder);
        std::filesystem::create_directories(root + folder);
    }
    if (handler == nullptr) {
        ConfCertInit(nullptr);
    }
    const std::string name = kNames[data[0] % std::size(kNames)];
    for (const char *folder : {"/ca/", "/crl/"}) {
        fuzz::writeFile(root + folder + name, data + 1, size - 1);
    }
    handler(OM_CERT_MSG_CA, 0);
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    fuzz::require(ConfAddCancelCrlToSslctx(ctx) == 0);
    SSL_CTX_free(ctx);
    return 0;
}
