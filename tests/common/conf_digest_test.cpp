/* Digests against the published examples of their standards, with a libcrypto that fails where a test
 * wants it to. */
#include "include/conf_digest.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using std::string;

/* Libcrypto as a test wants it: the library finds these definitions first. */
string failing;   /* the function that fails */
int contexts = 0; /* made and not released */

template <typename Result, typename... Arguments>
Result call(Result (*)(Arguments...), const char *name, Arguments... arguments) {
    auto *real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    return failing == name ? Result() : real(arguments...);
}

}  // namespace

EVP_MD_CTX *EVP_MD_CTX_new(void) {
    EVP_MD_CTX *made = call(EVP_MD_CTX_new, __func__);
    contexts += made != nullptr ? 1 : 0;
    return made;
}

void EVP_MD_CTX_free(EVP_MD_CTX *context) {
    contexts -= context != nullptr ? 1 : 0;
    call(EVP_MD_CTX_free, __func__, context);
}

int EVP_DigestInit(EVP_MD_CTX *context, const EVP_MD *method) {
    return call(EVP_DigestInit, __func__, context, method);
}

int EVP_DigestUpdate(EVP_MD_CTX *context, const void *data, size_t length) {
    return call(EVP_DigestUpdate, __func__, context, data, length);
}

int EVP_DigestFinal(EVP_MD_CTX *context, unsigned char *digest, unsigned int *length) {
    return call(EVP_DigestFinal, __func__, context, digest, length);
}

const EVP_MD *EVP_sm3(void) {
    return call(EVP_sm3, __func__);
}

namespace {

class ConfDigest : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(contexts, 0) << "contexts were left, or released twice";
        failing.clear();
    }
};

string hex(const unsigned char *bytes, unsigned int length) {
    string text;
    for (unsigned int i = 0; i < length; i++) {
        char two[3];
        snprintf(two, sizeof(two), "%02x", bytes[i]);
        text += two;
    }
    return text;
}

/* In one call, and in two pieces with the cut inside a block; "failed" when the two differ. */
string digestOf(uint16_t algorithm, std::string_view data) {
    unsigned char digest[CONF_DIGEST_LONGEST], pieces[CONF_DIGEST_LONGEST];
    unsigned int length = 0, lengthOfPieces = 0;
    void *context = nullptr;
    const size_t cut = data.size() / 3;
    const bool good = MOX_CRYPT_digest(algorithm, data.data(), data.size(), digest, &length) == 1 &&
                      MOX_CRYPT_digestInit(&context, algorithm) == 1 &&
                      MOX_CRYPT_digestUpdate(context, data.data(), cut) == 1 &&
                      MOX_CRYPT_digestUpdate(context, data.data() + cut, data.size() - cut) == 1 &&
                      MOX_CRYPT_digestFinal(&context, pieces, &lengthOfPieces) == 1 &&
                      context == nullptr;
    const string text = hex(digest, length);
    return good && text == hex(pieces, lengthOfPieces) ? text : "failed";
}

TEST_F(ConfDigest, PublishedExamplesInOneCallAndInPieces) {
    const string million(1000000, 'a');
    const struct {
        uint16_t algorithm;
        std::string_view data;
        const char *digest;
    } examples[] = {
        {CONF_DIGEST_SHA1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {CONF_DIGEST_SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {CONF_DIGEST_SHA256, "abc",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {CONF_DIGEST_SHA256, million,
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        {CONF_DIGEST_MD5, "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {CONF_DIGEST_SM3, "abc",
         "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
    };
    for (const auto &[algorithm, data, digest] : examples) {
        EXPECT_EQ(digestOf(algorithm, data), digest) << algorithm << ", " << data.size();
    }
}

TEST_F(ConfDigest, UnknownOrMissingAlgorithmIsRefused) {
    unsigned char digest[CONF_DIGEST_LONGEST] = {0x5A};
    unsigned int length = 77;
    int marker = 0;
    void *context = &marker;
    failing = "EVP_sm3";
    for (const uint16_t algorithm : {uint16_t{CONF_DIGEST_SM3}, uint16_t{4}, uint16_t{0xFFFF}}) {
        EXPECT_EQ(MOX_CRYPT_digest(algorithm, "abc", 3, digest, &length), 0U);
        EXPECT_EQ(MOX_CRYPT_digestInit(&context, algorithm), 0U);
    }
    EXPECT_EQ(digest[0], 0x5A);
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(context, &marker);
}

TEST_F(ConfDigest, MissingArgumentsFailAndReleaseWhatWasBegun) {
    unsigned char digest[CONF_DIGEST_LONGEST];
    unsigned int length = 0;
    EXPECT_EQ(MOX_CRYPT_digest(CONF_DIGEST_SHA1, nullptr, 3, digest, &length), 0U);
    EXPECT_EQ(MOX_CRYPT_digest(CONF_DIGEST_SHA1, "abc", 3, nullptr, &length), 0U);
    EXPECT_EQ(MOX_CRYPT_digestInit(nullptr, CONF_DIGEST_SHA1), 0U);
    EXPECT_EQ(MOX_CRYPT_digestUpdate(nullptr, "abc", 3), 0U);
    EXPECT_EQ(MOX_CRYPT_digestFinal(nullptr, digest, &length), 0U);

    void *context = nullptr;
    ASSERT_EQ(MOX_CRYPT_digestInit(&context, CONF_DIGEST_SHA1), 1U);
    EXPECT_EQ(MOX_CRYPT_digestUpdate(context, nullptr, 3), 0U);
    EXPECT_EQ(contexts, 0);
    ASSERT_EQ(MOX_CRYPT_digestInit(&context, CONF_DIGEST_SHA1), 1U);
    EXPECT_EQ(MOX_CRYPT_digestFinal(&context, nullptr, &length), 0U);
    EXPECT_EQ(context, nullptr);
}

TEST_F(ConfDigest, FailingLibcryptoLeavesNoContext) {
    unsigned char digest[CONF_DIGEST_LONGEST];
    for (const char *function :
         {"EVP_MD_CTX_new", "EVP_DigestInit", "EVP_DigestUpdate", "EVP_DigestFinal"}) {
        failing = function;
        int marker = 0;
        void *context = &marker;
        uint32_t result = MOX_CRYPT_digestInit(&context, CONF_DIGEST_SHA1);
        EXPECT_EQ(result, failing == "EVP_DigestUpdate" || failing == "EVP_DigestFinal" ? 1U : 0U);
        if (result == 1) {
            result = MOX_CRYPT_digestUpdate(context, "abc", 3);
        }
        if (result == 1) {
            result = MOX_CRYPT_digestFinal(&context, digest, nullptr);
        }
        EXPECT_EQ(result, 0U) << function;
        EXPECT_EQ(context == &marker, failing == "EVP_MD_CTX_new");
        EXPECT_EQ(contexts, 0) << function;
    }
}

}  // namespace
