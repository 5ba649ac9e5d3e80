/* libtamo_conference_sslex: the platform's additions to OpenSSL. */
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* OpenSSL's own names. */
struct ssl_ctx_st;
typedef struct ssl_ctx_st SSL_CTX;

/* Makes the certificates of a file trust anchors of the context; `path` is a device path, with
 * either separator, and `fileType` OpenSSL's SSL_FILETYPE_PEM. Returns 1 when they were loaded; any
 * other value says that they were not, or not all of them. A context belongs to one thread at a
 * time. */
int32_t SSL_CTX_load_cacertificate_file(SSL_CTX *ctx, const char *path, uint32_t fileType);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
