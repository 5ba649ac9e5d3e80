/* The test program's definitions of the operations of certificates; the others are in
 * platform_operations.cpp. */
#include "forwarding_platform.h"
#include "platform_slot.h"

using platform::detail::forward;
using platform::detail::kOne;

int32_t TamoOmCertClientInit(void *argument) {
    return forward<&TamoOmCertClientInit>(CALLER, kOne, argument);
}

int32_t TamoOmCertNotifyCallback(ConfOmCertHandler handler) {
    return forward<&TamoOmCertNotifyCallback>(CALLER, kOne, handler);
}

int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t two, uint32_t certId,
                              ConfCertPathInfo *info) {
    return forward<&TamoOmCertGetCertPath>(CALLER, kOne, kind, two, certId, info);
}

int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t certId, ConfCertSizes *sizes) {
    return forward<&TamoOmCertGetExpectedSrvCertSize>(CALLER, kOne, certId, sizes);
}

int32_t TamoOmCertGetServiceCert(uint32_t certId, ConfCertContent *content) {
    return forward<&TamoOmCertGetServiceCert>(CALLER, kOne, certId, content);
}

int32_t TamoOmCertGetCertId(const ConfCertIdBuffer *contents, ConfCertIdBuffer *identifier) {
    return forward<&TamoOmCertGetCertId>(CALLER, kOne, contents, identifier);
}

int32_t TamoOmCertGetCapability(uint8_t *capabilities10) {
    return forward<&TamoOmCertGetCapability>(CALLER, kOne, capabilities10);
}

int32_t SSL_CTX_load_cacertificate_file(SSL_CTX *ctx, const char *path, uint32_t fileType) {
    return forward<&SSL_CTX_load_cacertificate_file>(
        CALLER, [] { return 0; }, ctx, path, fileType);
}
