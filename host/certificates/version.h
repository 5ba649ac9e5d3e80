/* One version of a server certificate: see layout.h.
 *
 * A process that is told of changes sees the version that its handler was last told of, not the one that
 * was put in place a moment ago: see notify.h. */
#pragma once
#include "host/base/descriptor.h"
#include "host/certificates/key.h"
#include "host/certificates/layout.h"

namespace tamo::certificates {

struct CertVersion {
    Descriptor directory;
    char name[kVersionNameSize];
    char path[128]; /* the directory as a device path */
};

/* Opens the version that the calling thread is to see. TAMO_HOST_ codes; failures are recorded. */
uint32_t openCertVersion(uint32_t certId, CertVersion *version);

/* Opens the version that is in place now; false, with errno and no record, when there is none. */
bool openCurrentVersion(uint32_t certId, CertVersion *version);

/* Whether the version has that file; a directory or a device does not count. */
bool hasFile(const CertVersion &version, const char *name);

/* Whether the key of the version that the calling thread is to see is the engine's. */
bool isEngineKept(uint32_t certId);

/* Whether the version is complete and its key belongs to its certificate; `why` gets what is missing. */
bool isWholeVersion(const CertVersion &version, const char **why);

/* Makes the service's directories. TAMO_HOST_ codes; failures are recorded. */
uint32_t makeCertDirectories();

}  // namespace tamo::certificates
