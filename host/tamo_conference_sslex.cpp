/* The additions to OpenSSL: trust anchors from a file by device path. */
#include "tamo_conference_sslex.h"

#include <limits.h>
#include <openssl/ssl.h>

#include "device_root.h"
#include "host_record.h"

int32_t SSL_CTX_load_cacertificate_file(SSL_CTX *ctx, const char *path, uint32_t fileType) {
    char native[PATH_MAX];
    if (ctx == nullptr || fileType != SSL_FILETYPE_PEM ||
        !tamo::nativePath(path, native, sizeof(native))) {
        tamo::hostRecord(tamo::kWarning, "tamo_conference_sslex", __LINE__,
                         "no CA certificates are loaded: a context, a device path and the file "
                         "type %d are needed",
                         SSL_FILETYPE_PEM);
        return 0;
    }
    return SSL_CTX_load_verify_file(ctx, native);
}
