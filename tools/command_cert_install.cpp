/* tamoctl cert install: a server certificate with its key. */
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "cert_files.h"
#include "command_cert.h"

namespace tamoctl {

namespace {

/* What is installed, checked. */
struct Pair {
    tamo::SecretFile chain, key, extra;
    tamo::Passphrase phrase;
    tamo::KeyIdentifier identifier;
};

void readPassphraseFile(const Command &command, const char *path, tamo::Passphrase *phrase) {
    const int error = tamo::readPassphrase(AT_FDCWD, path, phrase);
    if (error != 0 || phrase->text[0] == 0) {
        fail(command, "'%s' holds no pass phrase of 1 to %zu characters in its first line%s%s",
             path, tamo::kPassphraseSize - 1, error == 0 ? "" : ": ",
             error == 0 ? "" : strerror(error));
    }
}

void readPair(const Command &command, const CertificateSource &source, Pair *pair) {
    readFile(command, source.chain, &pair->chain);
    readFile(command, source.key, &pair->key);
    if (source.passphrase != nullptr) {
        readPassphraseFile(command, source.passphrase, &pair->phrase);
    }
    if (source.extra != nullptr) {
        readFile(command, source.extra, &pair->extra);
    }
    const tamo::QuietErrors quiet;
    const std::vector<tamo::CertificateOwner> chain = readCertificates(pair->chain);
    if (chain.empty()) {
        fail(command, "'%s' holds no certificates in PEM, or a damaged one", source.chain);
    }
    const tamo::KeyOwner key = tamo::readPrivateKey(pair->key, &pair->phrase);
    if (key == nullptr) {
        fail(command,
             "'%s' holds no private key in PEM that can be read: an encrypted one needs its pass "
             "phrase, --passphrase FILE",
             source.key);
    }
    if (X509_check_private_key(chain.front().get(), key.get()) != 1) {
        fail(command,
             "the key in '%s' does not belong to the first certificate in '%s': nothing was "
             "installed",
             source.key, source.chain);
    }
    if (!tamo::identifyKey(key.get(), &pair->identifier)) {
        fail(command, "the key in '%s' has no identifier: its type is not known", source.key);
    }
}

/* With a pass phrase where there is one; a key's file comes last, and makes it usable. */
void writeKey(const Command &command, int directory, const Pair &pair, const std::string &keyName,
              const std::string &phraseName) {
    if (pair.phrase.text[0] != 0) {
        writeFile(command, directory, phraseName, pair.phrase.text, strlen(pair.phrase.text));
    } else {
        unlinkat(directory, phraseName.c_str(), 0);
    }
    writeFile(command, directory, keyName, pair.key.data, pair.key.size);
}

std::string makeVersion(const Command &command, int server, uint32_t certId) {
    const std::string path = rootPath(command, tamo::kServerDirectory) + "/";
    std::string name = path + "." + std::to_string(certId) + "-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        fail(command, "no directory can be made in '%s': %s", path.c_str(), strerror(errno));
    }
    fsync(server);
    return name.substr(path.size());
}

}  // namespace

int installCertificate(const Command &command, const CertificateSource &source) {
    if (source.extra != nullptr && source.certId != tamo::kTwoPartIds[0] &&
        source.certId != tamo::kTwoPartIds[1]) {
        failUsage(command, "only certificates %u and %u have a second part", tamo::kTwoPartIds[0],
                  tamo::kTwoPartIds[1]);
    }
    Pair pair;
    readPair(command, source, &pair);
    const tamo::Descriptor server = openDeviceDirectory(command, tamo::kServerDirectory);
    const std::string version = makeVersion(command, server.get(), source.certId);
    const tamo::Descriptor directory(
        openat(server.get(), version.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    writeFile(command, directory.get(), tamo::kChainFile, pair.chain.data, pair.chain.size);
    if (source.extra != nullptr) {
        writeFile(command, directory.get(), tamo::kExtraFile, pair.extra.data, pair.extra.size);
    }
    if (source.inEngine) {
        const tamo::Descriptor keys = openDeviceDirectory(command, tamo::kEngineKeyDirectory);
        const std::string identifier = pair.identifier.text;
        writeFile(command, directory.get(), tamo::kEngineKeyFile, identifier.data(),
                  identifier.size());
        writeKey(command, keys.get(), pair, identifier + ".pem", identifier + ".passphrase");
    } else {
        writeKey(command, directory.get(), pair, tamo::kKeyFile, tamo::kPassphraseFile);
    }
    useVersion(command, server.get(), source.certId, version);
    return kSuccess;
}

}  // namespace tamoctl
