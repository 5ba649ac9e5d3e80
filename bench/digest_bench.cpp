/* Digests beside the bare call of libcrypto that they make. */
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "bench/take_turns.h"
#include "include/conf_digest.h"

namespace {

unsigned char digest[CONF_DIGEST_LONGEST];
unsigned int length;

void check(bool good) {
    bench::require(good, "a digest");
}

struct Algorithm {
    uint16_t number;
    const char *name;
    const EVP_MD *(*method)();
};

void compareOne(const Algorithm &algorithm, size_t size, double limit, size_t runs) {
    const std::vector<unsigned char> data(size, 0x5A);
    const auto bare = [&] {
        check(EVP_Digest(data.data(), size, digest, &length, algorithm.method(), nullptr) == 1);
    };
    const auto whole = [&] {
        check(MOX_CRYPT_digest(algorithm.number, data.data(), size, digest, &length) == 1);
    };
    const auto pieces = [&] {
        void *context = nullptr;
        check(MOX_CRYPT_digestInit(&context, algorithm.number) == 1 &&
              MOX_CRYPT_digestUpdate(context, data.data(), size / 2) == 1 &&
              MOX_CRYPT_digestUpdate(context, data.data() + size / 2, size - size / 2) == 1 &&
              MOX_CRYPT_digestFinal(&context, digest, &length) == 1);
    };
    const std::string title =
        std::string(algorithm.name) + " of " + std::to_string(size) + " bytes";
    bench::compare({.title = title.c_str(), .runs = runs},
                   {{"EVP_Digest", 0, bare},
                    {"MOX_CRYPT_digest", limit, whole},
                    {"MOX_CRYPT_digestInit, two updates, final", 0, pieces}});
}

}  // namespace

int main() {
    const Algorithm algorithms[] = {{CONF_DIGEST_SHA1, "SHA-1", EVP_sha1},
                                    {CONF_DIGEST_SHA256, "SHA-256", EVP_sha256},
                                    {CONF_DIGEST_MD5, "MD5", EVP_md5},
                                    {CONF_DIGEST_SM3, "SM3", EVP_sm3}};
    for (const Algorithm &algorithm : algorithms) {
        compareOne(algorithm, 64, 1.1, 50);
    }
    compareOne(algorithms[1], 1 << 20, 1.01, 1);
    return bench::finish();
}
