/* libtamo_om_cert_client: the certificate service's client.
 *
 * 1. The service keeps the device's server certificates with their private keys and pass phrases,
 *    the trusted CA certificates and the revocation lists. Each server certificate has a number,
 *    its certificate id: 257 and what TamoOmCertGetCapability calls its index.
 * 2. Results are 0 for success and another value for failure. A caller zeroes every record before
 *    it passes it.
 * 3. Any thread may call any operation. Queries answer as of one moment: contents, sizes, paths and
 *    capability of a certificate that is being replaced are all the old one's or all the new one's.
 *    To a process with a handler they are the new one's on the handler's thread while it is being
 *    told, and on every other thread once the handler has asked for the identifier, or has returned.
 * 4. Files behind the paths are whole whenever their path has been given out, and open without a
 *    question to a person: an encrypted key without its pass phrase fails the query. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What TamoOmCertGetCertPath is asked for. */
enum {
    OM_CERT_PATH_SERVER = 0, /* one server certificate's files */
    OM_CERT_PATH_CA = 1,     /* the directory of CA certificates */
    OM_CERT_PATH_CRL = 2     /* the directory of revocation lists */
};

/* What a notification is about. */
enum {
    OM_CERT_MSG_SERVER = 0, /* the server certificate `certId` changed */
    OM_CERT_MSG_CA = 1,     /* the set of CA certificates changed */
    OM_CERT_MSG_CRL = 3     /* the set of revocation lists changed */
};

/* Where a certificate is: NUL-terminated device paths in PEM. A directory is given in `certPath`
 * alone, without a separator at its end. */
typedef struct ConfCertPathInfo {
    char certPath[512];
    char keyPath[512];    /* empty where the key stays in the platform */
    char keyPassword[64]; /* pass phrase of the key file; empty when it has none */
} ConfCertPathInfo;

/* Sizes of a server certificate's contents in bytes. */
typedef struct ConfCertSizes {
    uint32_t certificate; /* at most 1 MiB */
    uint32_t extra;       /* the second part; certificates 259 and 260 only, else 0 */
    uint32_t spare;
} ConfCertSizes;

/* Buffers of the caller for a server certificate's contents. */
typedef struct ConfCertContent {
    uint8_t *certData; /* room for 1,048,577 bytes */
    uint32_t certLen;
    uint8_t *extraData; /* room for extraLen + 1 bytes; null for a certificate of one part */
    uint32_t extraLen;
    uint32_t spare[2];
} ConfCertContent;

/* Bytes and their number. */
typedef struct ConfCertIdBuffer {
    uint8_t *data;
    uint32_t length;
} ConfCertIdBuffer;

/* Receives notifications on a thread of the client's choice, one after the other. It may call every
 * operation of the client. */
typedef void (*ConfOmCertHandler)(uint32_t msgId, uint32_t certId);

/* Connects the process to the service. `argument` is the client's own affair; null is allowed. */
int32_t TamoOmCertClientInit(void *argument);

/* Makes `handler` the receiver of notifications; it replaces an earlier one. Notifications may come
 * before this has returned: once for each change, after the files are whole. */
int32_t TamoOmCertNotifyCallback(ConfOmCertHandler handler);

/* Tells where the server certificate `certId` is, or (`certId` 0) a directory; see OM_CERT_PATH_*.
 * `two` is 2. A certificate that is not there fails. */
int32_t TamoOmCertGetCertPath(uint32_t kind, uint32_t two, uint32_t certId, ConfCertPathInfo *info);

/* Stores how large the contents of a server certificate are. */
int32_t TamoOmCertGetExpectedSrvCertSize(uint32_t certId, ConfCertSizes *sizes);

/* Writes the contents of a server certificate into the buffers of `content`, and their lengths. */
int32_t TamoOmCertGetServiceCert(uint32_t certId, ConfCertContent *content);

/* Writes the key identifier that belongs to a certificate's contents: a text that the engine
 * "openssl_engine" takes for the private key. `identifier` describes 256 zeroed bytes of the caller
 * and then the identifier's length, at most 256. */
int32_t TamoOmCertGetCertId(const ConfCertIdBuffer *contents, ConfCertIdBuffer *identifier);

/* Fills 10 bytes, one per index: nonzero where the certificate's private key stays in the platform
 * and only the engine works with it. */
int32_t TamoOmCertGetCapability(uint8_t *capabilities10);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(sizeof(ConfCertPathInfo) == 1088 && offsetof(ConfCertPathInfo, keyPath) == 512);
static_assert(offsetof(ConfCertPathInfo, keyPassword) == 1024);
static_assert(sizeof(ConfCertSizes) == 12 && offsetof(ConfCertSizes, extra) == 4);
static_assert(offsetof(ConfCertContent, extraData) == 2 * sizeof(void *));
static_assert(offsetof(ConfCertIdBuffer, length) == sizeof(void *));
static_assert(offsetof(ConfCertContent, spare) == (sizeof(void *) == 4 ? 16 : 28));
#endif
