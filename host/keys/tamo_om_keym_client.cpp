/* libtamo_om_keym_client: key management.
 *
 * A printable text is "k1:" and the base64 form of nonce (12 bytes), cipher text and tag (16 bytes)
 * of AES-256-GCM; prefix and owner are authenticated with it. Each owner has a random key of its
 * own, keys/<owner>.key, which is read for each use and wiped after it. */
#include "tamo_om_keym_client.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "common/openssl_owner.h"
#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "tamo_host.h"

namespace {

constexpr const char *kUnit = "tamo_om_keym_client";
constexpr char kPrefix[] = "k1:";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
constexpr size_t kOwnerSize = 64;
constexpr size_t kKeySize = 32;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
/* The buffer that callers have, and what of the sealed bytes fits it. */
constexpr size_t kTextSize = 312;
constexpr size_t kSealedSize = (kTextSize - 1 - kPrefixLength) / 4 * 3;
constexpr size_t kPlainSize = kSealedSize - kNonceSize - kTagSize;

/* Bytes that are wiped when they leave scope. */
template <size_t kSize>
struct Secret {
    unsigned char bytes[kSize];
    Secret() = default;
    ~Secret() { OPENSSL_cleanse(bytes, sizeof(bytes)); }
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
};

using Key = Secret<kKeySize>;

using Cipher = OpensslOwner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

using tamo::Descriptor;

uint32_t refuse(int line, uint32_t code, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
    return code;
}

uint32_t keyFailure(int line, const char *what, const char *name) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s %s/keys/%s failed: %s%s", what,
                     tamo::deviceRoot(), name, strerror(errno), tamo::adviceOn(errno));
    return TAMO_HOST_SYSTEM;
}

/* An owner's name becomes a file's. */
bool isOwner(const char *owner) {
    size_t length = owner == nullptr ? 0 : strnlen(owner, kOwnerSize);
    return length != 0 && length != kOwnerSize && strchr(owner, '/') == nullptr;
}

uint32_t readKey(int file, const char *name, Key *key) {
    struct stat status;
    if (fstat(file, &status) != 0) {
        return keyFailure(__LINE__, "examining", name);
    }
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the key %s/keys/%s is refused: other users may have read it (mode %04o), "
                         "if they have not, run chmod 600 on it",
                         tamo::deviceRoot(), name, status.st_mode & 07777);
        return TAMO_HOST_REFUSED;
    }
    ssize_t length = status.st_size == off_t{kKeySize} ? read(file, key->bytes, kKeySize) : -1;
    if (length != ssize_t{kKeySize}) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the key %s/keys/%s is refused: it must have %zu bytes; put its copy "
                         "back, or remove it and set anew what was encrypted under it",
                         tamo::deviceRoot(), name, kKeySize);
        return TAMO_HOST_REFUSED;
    }
    return TAMO_HOST_OK;
}

bool fillKey(int file) {
    Key key;
    return RAND_bytes(key.bytes, kKeySize) == 1 &&
           write(file, key.bytes, kKeySize) == ssize_t{kKeySize} && fchmod(file, 0600) == 0 &&
           fsync(file) == 0;
}

/* Makes a key under a name of its own and links it: of several makers one wins, and nobody sees half
 * a key. It is on stable storage before anything is encrypted under it. */
uint32_t makeKey(int directory, const char *name) {
    char fresh[32];
    uint64_t number = 0;
    errno = EIO;
    if (RAND_bytes(reinterpret_cast<unsigned char *>(&number), sizeof(number)) != 1) {
        return keyFailure(__LINE__, "making", name);
    }
    (void)snprintf(fresh, sizeof(fresh), ".fresh-%016llx", static_cast<unsigned long long>(number));
    Descriptor file(openat(directory, fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.isOpen()) {
        return keyFailure(__LINE__, "making", name);
    }
    errno = EIO;
    bool made = fillKey(file.get()) &&
                (linkat(directory, fresh, directory, name, 0) == 0 || errno == EEXIST);
    uint32_t code = made ? uint32_t{TAMO_HOST_OK} : keyFailure(__LINE__, "making", name);
    unlinkat(directory, fresh, 0);
    if (made && fsync(directory) != 0) {
        return keyFailure(__LINE__, "keeping", name);
    }
    return code;
}

/* The owner's key, made on its first use. */
uint32_t ownerKey(const char *owner, bool make, Key *key) {
    int directory = tamo::rootDirectory("keys");
    if (directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    char name[kOwnerSize + 8];
    (void)snprintf(name, sizeof(name), "%s.key", owner);
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor file(openat(directory, name, kFlags));
    if (file.isOpen()) {
        return readKey(file.get(), name, key);
    }
    if (errno != ENOENT || !make) {
        return keyFailure(__LINE__, "opening the key", name);
    }
    uint32_t code = makeKey(directory, name);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    Descriptor made(openat(directory, name, kFlags));
    return !made.isOpen() ? keyFailure(__LINE__, "opening the key", name)
                          : readKey(made.get(), name, key);
}

/* A context that knows key, nonce and what is authenticated besides the text. */
Cipher beginCipher(const Key &key, const unsigned char *nonce, const char *owner, bool encrypt) {
    Cipher cipher(EVP_CIPHER_CTX_new());
    int length = 0;
    unsigned char bound[kPrefixLength + kOwnerSize];
    int boundLength =
        snprintf(reinterpret_cast<char *>(bound), sizeof(bound), "%s%s", kPrefix, owner);
    bool ready = cipher != nullptr &&
                 EVP_CipherInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, key.bytes, nonce,
                                   encrypt ? 1 : 0) == 1 &&
                 EVP_CipherUpdate(cipher.get(), nullptr, &length, bound, boundLength) == 1;
    return ready ? std::move(cipher) : nullptr;
}

/* Writes nonce, cipher text and tag to `sealed`. */
bool seal(const Key &key, const char *owner, const char *plain, size_t plainLength,
          unsigned char *sealed) {
    unsigned char *text = sealed + kNonceSize;
    int length = 0;
    if (RAND_bytes(sealed, kNonceSize) != 1) {
        return false;
    }
    Cipher cipher = beginCipher(key, sealed, owner, true);
    return cipher != nullptr &&
           EVP_CipherUpdate(cipher.get(), text, &length,
                            reinterpret_cast<const unsigned char *>(plain),
                            static_cast<int>(plainLength)) == 1 &&
           EVP_CipherFinal_ex(cipher.get(), text + length, &length) == 1 &&
           EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_AEAD_GET_TAG, kTagSize, text + plainLength) ==
               1;
}

/* Fills `plain`, which is worth nothing unless the result is true. */
bool unseal(const Key &key, const char *owner, unsigned char *sealed, size_t plainLength,
            unsigned char *plain) {
    unsigned char *text = sealed + kNonceSize;
    int length = 0;
    Cipher cipher = beginCipher(key, sealed, owner, false);
    return cipher != nullptr &&
           EVP_CipherUpdate(cipher.get(), plain, &length, text, static_cast<int>(plainLength)) ==
               1 &&
           EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_AEAD_SET_TAG, kTagSize, text + plainLength) ==
               1 &&
           EVP_CipherFinal_ex(cipher.get(), plain + length, &length) == 1;
}

void print(const unsigned char *sealed, size_t length, char (&text)[kTextSize]) {
    memcpy(text, kPrefix, kPrefixLength);
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text) + kPrefixLength, sealed,
                    static_cast<int>(length));
}

/* The sealed bytes of a printed text and their number; 0 for a text that print() does not make. The
 * decoder is a tolerant one, hence the comparison. */
size_t scan(const char *text, unsigned char *sealed) {
    size_t length = strnlen(text, kTextSize);
    if (length == kTextSize || length % 4 != kPrefixLength % 4 ||
        strncmp(text, kPrefix, kPrefixLength) != 0) {
        return 0;
    }
    int decoded =
        EVP_DecodeBlock(sealed, reinterpret_cast<const unsigned char *>(text) + kPrefixLength,
                        static_cast<int>(length - kPrefixLength));
    for (size_t at = length; decoded > 0 && at > length - 2 && text[at - 1] == '='; at--) {
        decoded--;
    }
    if (decoded < int{kNonceSize + kTagSize}) {
        return 0;
    }
    char again[kTextSize];
    print(sealed, static_cast<size_t>(decoded), again);
    return strcmp(again, text) == 0 ? static_cast<size_t>(decoded) : 0;
}

uint32_t encrypt(const char *owner, const char *plain, uint32_t plainLength, char *out,
                 uint32_t *outLength) {
    if (!isOwner(owner) || (plain == nullptr && plainLength != 0) || outLength == nullptr) {
        return refuse(
            __LINE__, TAMO_HOST_INVALID,
            "nothing is encrypted: the owner's name or an argument is missing or not valid");
    }
    if (plainLength > kPlainSize) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "a text of %u bytes is not encrypted: at most %zu fit", plainLength,
                         kPlainSize);
        return TAMO_HOST_TOO_LARGE;
    }
    Key key;
    uint32_t code = ownerKey(owner, true, &key);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    unsigned char sealed[kSealedSize];
    char text[kTextSize];
    if (!seal(key, owner, plain, plainLength, sealed)) {
        return refuse(__LINE__, TAMO_HOST_SYSTEM, "libcrypto fails to encrypt with AES-256-GCM");
    }
    print(sealed, plainLength + kNonceSize + kTagSize, text);
    *outLength = static_cast<uint32_t>(strlen(text));
    memcpy(out, text, *outLength + 1);
    return TAMO_HOST_OK;
}

uint32_t decrypt(const char *owner, const char *encrypted, char *out, uint32_t size,
                 uint32_t *outLength) {
    unsigned char sealed[kSealedSize + 3];
    size_t sealedLength = scan(encrypted, sealed);
    if (sealedLength == 0) {
        return refuse(__LINE__, TAMO_HOST_REFUSED,
                      "nothing is decrypted: this is no text that key management made");
    }
    Key key;
    uint32_t code = ownerKey(owner, false, &key);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    Secret<kPlainSize> plain;
    size_t length = sealedLength - kNonceSize - kTagSize;
    if (!unseal(key, owner, sealed, length, plain.bytes)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "nothing is decrypted: the text was altered, or made for another owner "
                         "than %s or under an earlier key: set it anew",
                         owner);
        return TAMO_HOST_REFUSED;
    }
    if (length >= size) {
        return refuse(__LINE__, TAMO_HOST_TOO_LARGE, "a decrypted text does not fit its buffer");
    }
    memcpy(out, plain.bytes, length);
    out[length] = '\0';
    *outLength = static_cast<uint32_t>(length);
    return TAMO_HOST_OK;
}

}  // namespace

int32_t TamoOmKeymEncrypt(const char *ownerName, const char *plain, uint32_t plainLength, char *out,
                          uint32_t *outLength) {
    if (out == nullptr) {
        return static_cast<int32_t>(
            refuse(__LINE__, TAMO_HOST_INVALID, "nothing is encrypted: no buffer was given"));
    }
    const ForgivenErrors forgiven;
    uint32_t code = encrypt(ownerName, plain, plainLength, out, outLength);
    if (code != TAMO_HOST_OK) {
        out[0] = '\0';
    }
    return static_cast<int32_t>(code);
}

uint32_t TamoHostKeymDecrypt(const char *ownerName, const char *encrypted, char *out,
                             uint32_t *outLength) {
    if (!isOwner(ownerName) || encrypted == nullptr || out == nullptr || outLength == nullptr ||
        *outLength == 0) {
        return refuse(
            __LINE__, TAMO_HOST_INVALID,
            "nothing is decrypted: the owner's name or an argument is missing or not valid");
    }
    const ForgivenErrors forgiven;
    uint32_t size = *outLength;
    *outLength = 0;
    out[0] = '\0';
    return decrypt(ownerName, encrypted, out, size, outLength);
}
