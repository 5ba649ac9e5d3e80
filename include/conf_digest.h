/* Message digests, and the process-wide values of the conference service.
 *
 * 1. Digest operations return 1 for success and 0 for failure; nothing is logged.
 * 2. A digest buffer of CONF_DIGEST_LONGEST bytes suffices for every algorithm.
 * 3. A digest context belongs to one thread at a time; everything else may be called by any.
 *
 *     unsigned char digest[CONF_DIGEST_LONGEST];
 *     unsigned int length;
 *     if (MOX_CRYPT_digest(CONF_DIGEST_SHA256, data, size, digest, &length) == 1) ...
 */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Algorithms. */
enum {
    CONF_DIGEST_SHA1 = 0,   /* 20 bytes */
    CONF_DIGEST_SHA256 = 1, /* 32 bytes */
    CONF_DIGEST_MD5 = 2,    /* 16 bytes */
    CONF_DIGEST_SM3 = 3,    /* 32 bytes */
    CONF_DIGEST_LONGEST = 64
};

/* Computes the digest of `length` bytes. `digestLength`, which may be null, receives the number of bytes
 * written to `digest`. 0 for an unknown algorithm, or one that libcrypto was built without. */
uint32_t MOX_CRYPT_digest(uint16_t algorithm, const void *data, size_t length,
                          unsigned char *digest, unsigned int *digestLength);

/* Begins a digest of several pieces and stores its context, which MOX_CRYPT_digestFinal releases, or a
 * MOX_CRYPT_digestUpdate that fails. */
uint32_t MOX_CRYPT_digestInit(void **context, uint16_t algorithm);

/* Adds a piece. On failure the context is released and must not be used again. */
uint32_t MOX_CRYPT_digestUpdate(void *context, const void *data, size_t length);

/* Ends a digest, releases the context and makes the caller's pointer null, whatever the result. 0 when
 * the pointer was null already. */
uint32_t MOX_CRYPT_digestFinal(void **context, unsigned char *digest, unsigned int *digestLength);

/* The conference type of the operations system, as last set; 0 before. The library does not interpret
 * it. */
uint32_t GetOmsConfType(void);

/* Sets the conference type, to any value. Orders nothing else between threads. */
void SetOmsConfType(uint32_t value);

/* Event reports: this library reports nothing; always 0. */
uint32_t ConfReportToTellum(void);

/* As ConfReportToTellum. */
uint32_t ConfReportAddrBookToTellum(void);

/* As ConfReportToTellum. */
uint32_t ConfReportRegisterToTellum(void);

/* As ConfReportToTellum. */
uint32_t ConfReportCallErrToTellum(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
