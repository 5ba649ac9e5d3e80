/* The certificate service's client. The directories of CA certificates and revocation lists are those of
 * the device root; server certificates are not kept here yet, and every question for one is refused. */
#include "tamo_om_cert_client.h"

#include <string.h>

#include "host_record.h"

namespace {

constexpr const char *kUnit = "tamo_om_cert_client";
constexpr int32_t kRefused = 1;

int32_t refuse(int line, const char *what) {
    tamo::hostRecord(tamo::kWarning, kUnit, line,
                     "%s: this host keeps no server certificates; load them from files", what);
    return kRefused;
}

}  // namespace

int32_t TamoOmCertClientInit(void *) {
    return 0;
}

int32_t TamoOmCertNotifyCallback(ConfOmCertHandler) {
    return 0;
}

int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t, uint32_t, ConfCertPathInfo *info) {
    if (info == nullptr || (kind != OM_CERT_PATH_CA && kind != OM_CERT_PATH_CRL)) {
        return refuse(__LINE__, "a certificate's path");
    }
    strcpy(info->certPath, kind == OM_CERT_PATH_CA ? "/data/certfile/CA" : "/data/certfile/CRL");
    return 0;
}

int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t, ConfCertSizes *) {
    return refuse(__LINE__, "a certificate's size");
}

int32_t TamoOmCertGetServiceCert(uint32_t, ConfCertContent *) {
    return refuse(__LINE__, "a certificate's contents");
}

int32_t TamoOmCertGetCertId(const ConfCertIdBuffer *, ConfCertIdBuffer *) {
    return refuse(__LINE__, "a key identifier");
}

int32_t TamoOmCertGetCapability(uint8_t *) {
    return refuse(__LINE__, "the capabilities");
}
