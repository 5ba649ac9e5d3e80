/* See cert_version.h. */
#include "host/certificates/version.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/key.h"
#include "tamo_host.h"

namespace tamo {

namespace {

constexpr const char *kUnit = "cert_version";
/* Below the root's "data". */
constexpr const char *kServerPlace = kServerDirectory + sizeof("/data/") - 1;
/* A version that is removed between the look at the link and its opening. */
constexpr int kAttempts = 3;

/* What the certificate's entry leads to: a version's name, or the entry itself. */
bool nameVersion(int data, uint32_t certId, char (&name)[64]) {
    char place[96];
    (void)snprintf(place, sizeof(place), "%s/%u", kServerPlace, certId);
    const ssize_t length = readlinkat(data, place, name, sizeof(name) - 1);
    if (length < 0) {
        (void)snprintf(name, sizeof(name), "%u", certId);
        return errno == EINVAL;
    }
    name[length] = '\0';
    return strchr(name, '/') == nullptr && strcmp(name, "..") != 0;
}

bool openVersion(int data, uint32_t certId, CertVersion *version) {
    char name[64];
    if (!nameVersion(data, certId, name)) {
        return false;
    }
    char place[128];
    (void)snprintf(place, sizeof(place), "%s/%s", kServerPlace, name);
    (void)snprintf(version->path, sizeof(version->path), "%s/%s", kServerDirectory, name);
    version->directory =
        Descriptor(openat(data, place, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return version->directory.isOpen();
}

}  // namespace

uint32_t openCertVersion(uint32_t certId, CertVersion *version) {
    if (certId < kFirstCertId || certId - kFirstCertId >= kCertIds) {
        hostRecord(kWarning, kUnit, __LINE__, "there is no certificate %u: their ids are %u to %u",
                   certId, kFirstCertId, kFirstCertId + kCertIds - 1);
        return TAMO_HOST_INVALID;
    }
    const int data = rootDirectory("data");
    if (data < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    for (int attempt = 0; attempt < kAttempts; attempt++) {
        if (openVersion(data, certId, version)) {
            return TAMO_HOST_OK;
        }
    }
    if (errno == ENOENT) {
        hostRecord(kInfo, kUnit, __LINE__,
                   "the certificate %u is not installed: run tamoctl cert install %u CHAIN KEY",
                   certId, certId);
        return TAMO_HOST_NOT_FOUND;
    }
    hostRecord(kError, kUnit, __LINE__,
               "the certificate %u cannot be opened (%s): remove %s%s/%u and install it again",
               certId, strerror(errno), deviceRoot(), kServerDirectory, certId);
    return TAMO_HOST_SYSTEM;
}

bool hasFile(const CertVersion &version, const char *name) {
    struct stat status;
    return fstatat(version.directory.get(), name, &status, 0) == 0 && S_ISREG(status.st_mode);
}

bool isEngineKept(const CertVersion &version) {
    return hasFile(version, kEngineKeyFile);
}

bool isWholeVersion(const CertVersion &version, const char **why) {
    const QuietErrors quiet;
    const int directory = version.directory.get();
    SecretFile chain;
    const CertificateOwner own(
        readSecretFile(directory, kChainFile, &chain) == 0 ? readCertificate(chain) : nullptr);
    if (own == nullptr) {
        *why = "cert.pem is no certificate in PEM";
        return false;
    }
    if (isEngineKept(version)) {
        return true;
    }
    Passphrase phrase;
    if (readPassphrase(directory, kPassphraseFile, &phrase) != 0) {
        *why = "passphrase cannot be read, or has more than 63 characters";
        return false;
    }
    SecretFile pem;
    const KeyOwner key(readSecretFile(directory, kKeyFile, &pem) == 0 ? readPrivateKey(pem, &phrase)
                                                                      : nullptr);
    if (key == nullptr) {
        *why = "key.pem is no private key in PEM, or passphrase does not open it";
        return false;
    }
    *why = "key.pem is not the key of cert.pem";
    return X509_check_private_key(own.get(), key.get()) == 1;
}

uint32_t makeCertDirectories() {
    const int data = rootDirectory("data");
    if (data < 0 || rootDirectory("keys") < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    for (const char *path : {kCertDirectory, kServerDirectory, kCaDirectory, kCrlDirectory}) {
        if (mkdirat(data, path + sizeof("/data/") - 1, 0700) != 0 && errno != EEXIST) {
            hostRecord(kError, kUnit, __LINE__,
                       "%s%s cannot be created (%s): give this user the right to, or make it",
                       deviceRoot(), path, strerror(errno));
            return TAMO_HOST_SYSTEM;
        }
    }
    return TAMO_HOST_OK;
}

}  // namespace tamo
