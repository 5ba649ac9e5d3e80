/* Two small services of the library in one program, for this machine as it is:
 *
 *     example_address_and_digest [DESTINATION [FILE]]
 *
 * tells the local address from which packets to DESTINATION (127.0.0.1 when there is none) leave, and
 * the digests of FILE (of this program itself when there is none). Nothing is sent.
 */
#include <cstdio>
#include <memory>

#include "conf_digest.h"
#include "conf_network_utils.h"

namespace {

/* ---- the local address ---- */

/* What a terminal puts into its call signalling: where the other side can answer to. */
bool showLocalAddress(const char *destination) {
    char local[46];  // room for any IPv6 address
    if (GetBestLocalIpByDestIp(destination, local, sizeof(local)) != 0) {
        printf("to %-12s no route, or no address\n", destination);
        return false;
    }
    printf("to %-12s from %s\n", destination, local);
    return true;
}

/* ---- digests ---- */

struct Algorithm {
    uint16_t number;
    const char *name;
};

void printDigest(const char *name, const unsigned char *digest, unsigned int length) {
    printf("%-15s ", name);
    for (unsigned int i = 0; i < length; i++) {
        printf("%02x", digest[i]);
    }
    printf("\n");
}

/* A file is read piece by piece: a context carries the digest from one piece to the next. */
bool showDigest(FILE *file, const Algorithm &algorithm) {
    void *context = nullptr;
    if (MOX_CRYPT_digestInit(&context, algorithm.number) != 1) {
        printf("%-15s not in this libcrypto\n", algorithm.name);
        return true;
    }
    rewind(file);
    char piece[4096];
    while (const size_t size = fread(piece, 1, sizeof(piece), file)) {
        if (MOX_CRYPT_digestUpdate(context, piece, size) != 1) {
            return false;  // a failed update has released the context
        }
    }
    unsigned char digest[CONF_DIGEST_LONGEST];
    unsigned int length = 0;
    if (MOX_CRYPT_digestFinal(&context, digest, &length) != 1) {
        return false;
    }
    printDigest(algorithm.name, digest, length);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 3) {
        fprintf(stderr, "usage: %s [DESTINATION [FILE]]\n", argv[0]);
        return 2;
    }
    bool good = showLocalAddress(argc > 1 ? argv[1] : "127.0.0.1");

    const char *path = argc == 3 ? argv[2] : "/proc/self/exe";
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path, "rb"), fclose);
    if (file == nullptr) {
        perror(path);
        return 1;
    }
    const Algorithm algorithms[] = {{CONF_DIGEST_SHA1, "SHA-1"},
                                    {CONF_DIGEST_SHA256, "SHA-256"},
                                    {CONF_DIGEST_MD5, "MD5"},
                                    {CONF_DIGEST_SM3, "SM3"}};
    for (const Algorithm &algorithm : algorithms) {
        good = showDigest(file.get(), algorithm) && good;
    }

    // A text that is at hand as a whole needs one call.
    unsigned char digest[CONF_DIGEST_LONGEST];
    unsigned int length = 0;
    good = MOX_CRYPT_digest(CONF_DIGEST_SHA256, "abc", 3, digest, &length) == 1 && good;
    printDigest("SHA-256 of abc", digest, length);
    return good ? 0 : 1;
}
