/* Certificates and TLS endpoints: the device's server certificates, trusted CA certificates and
 * revocation lists, into the TLS contexts of a program.
 *
 * 1. The platform's certificate service keeps the files and tells of changes; this family keeps track
 *    and equips contexts. Certificates have four types, 0 to 3.
 * 2. A TLS context belongs to its owner, who lets one thread at a time work on it; nothing here keeps
 *    one. Everything else may run on any thread, also while the service reports changes.
 * 3. Results are 0 for success; failures are recorded. What a failed step had already put into a
 *    context stays there.
 * 4. Paths are device paths of at most 511 characters; buffers of CONF_CERT_PATH_SIZE bytes hold any.
 * 5. Pass phrases and keys are never recorded, and copies of them are wiped.
 *
 *     ConfCertInit(NULL);
 *     ConfCertNotifyCallback(onCertificateChange);
 *
 *     ConfLoadServerCert(serverContext, 0);
 *
 *     ConfCaCertEntry files[CONF_CERT_MAX_CA_FILES];
 *     uint32_t count;
 *     if (ConfCertGetCaCertList(files, &count) == 0)
 *         ConfCertLoadAllCaCert(clientContext, files, count);
 *     ConfAddCancelCrlToSslctx(clientContext);
 *     SSL_CTX_set_verify(clientContext, SSL_VERIFY_PEER, NULL); */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* OpenSSL's own names. */
struct ssl_ctx_st;
typedef struct ssl_ctx_st SSL_CTX;

enum {
    CONF_CERT_PATH_SIZE = 512,  /* bytes of a path buffer */
    CONF_CERT_MAX_CA_FILES = 30 /* entries that a CA file table has room for */
};

/* Told that a server certificate has changed: `argument` is 0 for type 0 and 1 for the types 2 and 3;
 * type 1 is not told of. Runs on the certificate service's thread, or on the caller's within
 * ConfCertInit and ConfCertNotifyCallback. */
typedef void (*ConfCertChangeCallback)(uint32_t argument);

/* Told that the set of CA certificates has changed, with the service's message id, 1, and certificate
 * id. Runs on the certificate service's thread. */
typedef void (*ConfCaCertUpdateCallback)(uint32_t msgId, uint32_t certId);

/* Where a server certificate is, for a caller that loads it: texts, the last one the pass phrase of
 * the key file, empty when it has none. The caller wipes it. */
typedef struct ConfGmSrvCertInfo {
    char certPath[512];
    char keyPath[512];
    char keyPassword[128];
} ConfGmSrvCertInfo;

/* A CA certificate file and its type as OpenSSL numbers them (1: PEM). */
typedef struct ConfCaCertEntry {
    char path[512];
    uint32_t fileType;
} ConfCaCertEntry;

/* Connects to the certificate service, learns the four certificates, each of which counts as changed,
 * and fills the address CA directory. Once, at start-up; `argument` goes to the service's client as
 * it is. Failures are recorded and leave the rest at work. */
void ConfCertInit(void *argument);

/* Stores the directory of CA certificates in `dst` of `size` bytes, without a separator at its end.
 * -1 for a null buffer or when the service does not tell, 1 when it does not fit. */
int32_t ConfCertGetCaPath(char *dst, uint32_t size);

/* The same for the directory of revocation lists. */
int32_t ConfCertGetCrlPath(char *dst, uint32_t size);

/* The same for the certificate file of a type. */
int32_t ConfCertGetSrvCertFilePath(uint32_t type, char *dst, uint32_t size);

/* Stores the path of the address CA directory, with a separator at its end, in `dst` of at least
 * CONF_CERT_PATH_SIZE bytes, all of which are written; empty before the first refresh. The directory
 * holds the CA certificates and revocation lists, and PEM files (".pem" or ".PEM" is in their names)
 * once more under their hashed names, as OpenSSL looks them up. A file whose path there is longer
 * than 511 characters is left out. */
void ConfCertGetAddrCaPath(char *dst);

/* Makes `callback` the one that hears of changed server certificates; null for none. A change of type
 * 0 that nobody heard is told at once, before this returns, on the caller's thread. */
void ConfCertNotifyCallback(ConfCertChangeCallback callback);

/* Makes `callback` the one that hears of changed CA certificates; null for none. On a device that
 * forbids the kit capability it is never called. */
void ConfCertUpdateNotifyCallback(ConfCaCertUpdateCallback callback);

/* Equips a server's context with the certificate chain and the private key of a type: from files, or
 * with a key that stays in the platform and works through its engine, as the platform decides. While
 * the certificate is replaced, the pair is the old one's or the new one's. -1 when the context has
 * not got this pair: what it had before may be there still, or the certificate without its key. */
int32_t ConfLoadServerCert(SSL_CTX *ctx, uint32_t type);

/* Fills `info` with the paths and the pass phrase of a type. -1 for a null record or when the service
 * does not tell; 1 when a field did not fit: it and the fields after it are as they were. */
int32_t ConfCertGetGmSrvCertInfo(uint32_t type, ConfGmSrvCertInfo *info);

/* Fills `table`, which has room for CONF_CERT_MAX_CA_FILES entries, with the CA certificate files
 * (names of at least four characters ending in "pem" in any letter case) in the order of the
 * directory, and `count` with their number. More files than entries are left out, and one whose path
 * does not fit, with a record. -1, with `count` as it was, for a null argument, when the service does
 * not tell, and when the directory is not there. */
int32_t ConfCertGetCaCertList(ConfCaCertEntry *table, uint32_t *count);

/* Makes the certificates of a file trust anchors of a context; a failure is only recorded. */
void ConfCertLoadOneCaCert(SSL_CTX *ctx, const char *path, uint32_t fileType);

/* The same for `count` entries of a table; -1 for a null table, else 0, whatever became of the
 * files. */
int32_t ConfCertLoadAllCaCert(SSL_CTX *ctx, const ConfCaCertEntry *table, uint32_t count);

/* Adds the revocation lists to a context: PEM files with ".pem", ".PEM", ".crl" or ".CRL" in their
 * names, and "crl" or "CRL". With the first one, the whole chain of each peer is checked for
 * revocation; a missing list is then forgiven, and so is a self-signed peer, for which
 * SSL_get_verify_result says X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT where its own list is there, and
 * X509_V_OK where that was forgiven too. 0, whatever became of the files, also when the service does
 * not tell where they are: the device's topmost directory is then read. 1 for a null context and when
 * the directory is not there. */
int32_t ConfAddCancelCrlToSslctx(SSL_CTX *ctx);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(ConfGmSrvCertInfo, keyPath) == 512, "");
static_assert(offsetof(ConfGmSrvCertInfo, keyPassword) == 1024, "");
static_assert(sizeof(ConfGmSrvCertInfo) == 1152, "");
static_assert(offsetof(ConfCaCertEntry, fileType) == 512, "");
static_assert(sizeof(ConfCaCertEntry) == 516, "");
#endif
