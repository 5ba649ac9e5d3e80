#include "host/certificates/version.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/certificates/notify.h"
#include "tamo_host.h"

namespace tamo::certificates {

namespace {

constexpr const char *kUnit = "cert_version";
/* Below the root's "data". */
constexpr const char *kServerPlace = kServerDirectory + sizeof("/data/") - 1;
/* A version may be removed between reading the link and opening what it names. */
constexpr int kAttempts = 3;

/* What the certificate's entry leads to: a version's name, or the entry itself. */
bool nameCurrent(int data, uint32_t certId, char (&name)[kVersionNameSize]) {
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

/* Opens the version of the name in `version`. */
bool openNamed(int data, CertVersion *version) {
    char place[128];
    (void)snprintf(place, sizeof(place), "%s/%s", kServerPlace, version->name);
    (void)snprintf(version->path, sizeof(version->path), "%s/%s", kServerDirectory, version->name);
    version->directory =
        Descriptor(openat(data, place, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return version->directory.isOpen();
}

bool openCurrent(int data, uint32_t certId, CertVersion *version) {
    for (int attempt = 0; attempt < kAttempts; attempt++) {
        if (nameCurrent(data, certId, version->name) && openNamed(data, version)) {
            return true;
        }
    }
    return false;
}

/* One that was removed meanwhile helps nobody: then it is the current one. */
bool openVisible(int data, uint32_t certId, CertVersion *version) {
    return (visibleVersion(certId, version->name) && openNamed(data, version) &&
            hasFile(*version, kChainFile)) ||
           openCurrent(data, certId, version);
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
    if (openVisible(data, certId, version)) {
        return TAMO_HOST_OK;
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

bool openCurrentVersion(uint32_t certId, CertVersion *version) {
    const int data = rootDirectory("data");
    return data >= 0 && openCurrent(data, certId, version);
}

bool hasFile(const CertVersion &version, const char *name) {
    struct stat status;
    return fstatat(version.directory.get(), name, &status, 0) == 0 && S_ISREG(status.st_mode);
}

bool isEngineKept(uint32_t certId) {
    CertVersion version;
    const int data = rootDirectory("data");
    return data >= 0 && openVisible(data, certId, &version) && hasFile(version, kEngineKeyFile);
}

bool isWholeVersion(const CertVersion &version, const char **why) {
    const ForgivenErrors forgiven;
    const int directory = version.directory.get();
    SecretFile chain;
    const CertificateOwner own(readSecretFile(directory, kChainFile, &chain) == 0
                                   ? readCertificate(chain.bio.get())
                                   : nullptr);
    if (own == nullptr) {
        *why = "cert.pem holds no certificate in PEM";
        return false;
    }
    if (hasFile(version, kEngineKeyFile)) {
        return true;
    }
    Passphrase phrase;
    if (readPassphrase(directory, kPassphraseFile, &phrase) != 0) {
        *why = "passphrase cannot be read, or has more than 63 characters";
        return false;
    }
    SecretFile pem;
    const KeyOwner key(readSecretFile(directory, kKeyFile, &pem) == 0
                           ? readPrivateKey(pem.bio.get(), &phrase)
                           : nullptr);
    if (key == nullptr) {
        *why = "key.pem holds no private key in PEM, or passphrase does not open it";
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
    for (const char *path : {kCertDirectory, kServerDirectory, kCaDirectory, kCrlDirectory,
                             kNewDirectory, kFixedDirectory, kFixedAddressDirectory}) {
        if (mkdirat(data, path + sizeof("/data/") - 1, 0700) != 0 && errno != EEXIST) {
            hostRecord(kError, kUnit, __LINE__,
                       "%s%s cannot be created (%s): give this user the right to, or make it",
                       deviceRoot(), path, strerror(errno));
            return TAMO_HOST_SYSTEM;
        }
    }
    return TAMO_HOST_OK;
}

}  // namespace tamo::certificates
