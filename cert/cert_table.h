/* The certificate table and what the files of the unit share. */
#pragma once

#include <cstdint>

#include "platform/tamo_om_cert_client.h"

constexpr char kCertUnit[] = "conf_cert";
constexpr uint32_t kNoCertificate = UINT32_MAX; /* the service's number of a type without a row */
constexpr uint32_t kNoCertType = UINT32_MAX;
constexpr uint32_t kCertPathSize = 512;
constexpr uint32_t kKeyIdSize = 256;

/* The fixed layout's directories. */
constexpr char kFixedAddressCaPath[] = "/data/tamo_conference/CA/";
constexpr char kFixedCaPath[] = "/data/certfile/CA/";
constexpr char kFixedCrlPath[] = "/data/certfile/CRL/";

/* The key identifier that the service gave for a certificate. */
struct ConfCertKey {
    char keyId[kKeyIdSize];
    uint32_t keyIdLen;
};

/* What is known of a certificate type from the start. */
struct ConfCertRecord {
    uint32_t type;
    uint32_t certId;
    int32_t capIndex; /* only its low byte counts */
};

/* The row of a type; null when there is none. */
const ConfCertRecord *findCertType(uint32_t type);

/* The service's number of a type; kNoCertificate when it has none. */
uint32_t certIdOf(uint32_t type);

/* The key identifier of a row, as of one moment. */
ConfCertKey keyOf(const ConfCertRecord &row);

/* How many key identifiers a type has had so far, once no new one is on its way from the service to
 * the table. A load that failed and finds another number than before it may have seen the service's
 * files of one certificate and the table's identifier of another. */
uint32_t identifiersSoFar(uint32_t type);

/* Are the contents of the type's certificate in two parts? */
constexpr bool hasSecondPart(uint32_t type) {
    return (type & ~1U) == 2;
}

/* The service's answer to a path query. It may hold a pass phrase: it is wiped at the end of its
 * scope. A text that fills its field runs on into the next one; the last one ends all the same. */
class CertPaths {
  public:
    ~CertPaths();
    CertPaths() = default;
    CertPaths(const CertPaths &) = delete;
    CertPaths &operator=(const CertPaths &) = delete;

    /* Asks the service; its result. */
    int32_t query(uint32_t kind, uint32_t certId);

    ConfCertPathInfo info = {};

  private:
    [[maybe_unused]] char end_[4] = {};
};

/* Fills the address CA directory anew. Several refreshes at once take turns. */
void ConfCertUpdateLdapCert();
