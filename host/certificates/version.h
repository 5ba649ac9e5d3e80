/* One version of a server certificate: see cert_layout.h. */
#pragma once
#include <limits.h>

#include "host/base/descriptor.h"
#include "host/certificates/layout.h"

namespace tamo {

struct CertVersion {
    Descriptor directory;
    char path[128]; /* the directory as a device path */
};

/* Opens the version that is in use now. TAMO_HOST_ codes; failures are recorded. */
uint32_t openCertVersion(uint32_t certId, CertVersion *version);

/* Whether the version has that file; a directory or a device is none. */
bool hasFile(const CertVersion &version, const char *name);

/* Whether the certificate's key is the engine's. */
bool isEngineKept(const CertVersion &version);

/* Whether the version is complete and its key belongs to its certificate; `why` gets what is missing. */
bool isWholeVersion(const CertVersion &version, const char **why);

/* Makes the service's directories. */
uint32_t makeCertDirectories();

/* Puts the engine where the device path of it leads. */
uint32_t placeEngine();

}  // namespace tamo
