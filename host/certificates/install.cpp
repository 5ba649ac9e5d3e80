/* The operations on the certificate service's store that tamo_host.h declares.
 *
 * A server certificate is written as a version of its own, which nobody sees before the link in its id's
 * place is renamed. CA certificates and lists are written into a directory that no reader walks and renamed
 * into theirs, and back when one of them fails. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <span>
#include <string>
#include <vector>

#include "host/certificates/key.h"
#include "host/certificates/store.h"
#include "tamo_host.h"

namespace tamo::certificates {

namespace {

using std::string;

constexpr char kNullArgument[] = "a null argument: nothing is changed";

/* ---- server certificates ---- */

/* Puts a link to `version`, or nothing when it is empty, in the entry's place at one moment. */
void replaceEntry(int server, const string &entry, const string &version) {
    const string former = versionInUse(server, entry);
    const string aside = freshName(entry);
    if (version.empty()) {
        if (renameat(server, entry.c_str(), server, aside.c_str()) != 0) {
            failSystem("removing the certificate", entry);
        }
    } else {
        if (symlinkat(version.c_str(), server, aside.c_str()) != 0) {
            failSystem("linking the certificate", entry);
        }
        if (renameat2(server, aside.c_str(), server, entry.c_str(), RENAME_EXCHANGE) != 0 &&
            renameat(server, aside.c_str(), server, entry.c_str()) != 0) {
            const int error = errno;
            unlinkat(server, aside.c_str(), 0);
            errno = error;
            failSystem("putting in place the certificate", entry);
        }
    }
    fsync(server);
    if (!former.empty()) {
        unlinkat(server, aside.c_str(), 0);
    }
    /* From now on the old one ages; a directory that was made by hand does under its new name. */
    utimensat(server, former.empty() ? aside.c_str() : former.c_str(), nullptr,
              AT_SYMLINK_NOFOLLOW);
}

BioOwner openText(const char *text, const char *what) {
    const size_t length = strnlen(text, kMaxCertSize + 1);
    if (length > kMaxCertSize) {
        refuse(TAMO_HOST_TOO_LARGE, "the %s has more than 1 MiB", what);
    }
    return BioOwner(BIO_new_mem_buf(text, static_cast<int>(length)));
}

/* The first certificate of a text whose certificates are all whole. */
CertificateOwner firstCertificate(const char *text, const char *what) {
    const BioOwner pem = openText(text, what);
    CertificateOwner first = readCertificate(pem.get());
    while (first != nullptr && readCertificate(pem.get()) != nullptr) {
    }
    return ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE ? std::move(first)
                                                                        : nullptr;
}

void checkServer(const TamoHostCertServer &server, KeyIdentifier *identifier) {
    const ForgivenErrors forgiven;
    if (server.certId < kFirstCertId || server.certId - kFirstCertId >= kCertIds) {
        refuse(TAMO_HOST_INVALID, "not a certificate id: %u (valid ids are %u to %u)",
               server.certId, kFirstCertId, kFirstCertId + kCertIds - 1);
    }
    if (server.extra != nullptr && !hasTwoParts(server.certId)) {
        refuse(TAMO_HOST_INVALID, "only certificates %u and %u have a second part", kTwoPartIds[0],
               kTwoPartIds[1]);
    }
    if (server.extra != nullptr && server.extraSize > kMaxCertSize) {
        refuse(TAMO_HOST_TOO_LARGE, "the second part has more than 1 MiB");
    }
    Passphrase phrase;
    if (server.passphrase != nullptr) {
        const size_t length = strnlen(server.passphrase, sizeof(phrase.text));
        if (length == 0 || length >= sizeof(phrase.text) ||
            strcspn(server.passphrase, "\r\n") != length) {
            refuse(TAMO_HOST_INVALID, "the pass phrase must have 1 to %zu characters in one line",
                   sizeof(phrase.text) - 1);
        }
        memcpy(phrase.text, server.passphrase, length);
    }
    const CertificateOwner own = firstCertificate(server.chain, "chain");
    if (own == nullptr) {
        refuse(TAMO_HOST_INVALID, "the chain holds no certificate in PEM, or a damaged one");
    }
    const KeyOwner key = readPrivateKey(openText(server.key, "key").get(), &phrase);
    if (key == nullptr) {
        refuse(TAMO_HOST_INVALID, "%s",
               !isEncrypted(server.key)       ? "the key file holds no private key in PEM"
               : server.passphrase == nullptr ? "the key is encrypted: give its pass phrase with "
                                                "--passphrase FILE"
                                              : "the pass phrase does not open the key");
    }
    if (X509_check_private_key(own.get(), key.get()) != 1) {
        refuse(TAMO_HOST_INVALID, "the key does not belong to the first certificate of the chain");
    }
    if (server.inEngine != 0 && !isEngineType(key.get())) {
        refuse(
            TAMO_HOST_INVALID,
            "the engine cannot use a key of the type %s: its types are RSA, RSA-PSS, EC, ED25519 "
            "and ED448",
            EVP_PKEY_get0_type_name(key.get()));
    }
    if (!identifyKey(key.get(), identifier)) {
        refuse(TAMO_HOST_INVALID, "the key's type is not known");
    }
}

/* A text that is wiped when it leaves scope. */
struct SecretText {
    string text;
    ~SecretText() { OPENSSL_cleanse(text.data(), text.size()); }
};

/* The key and its pass phrase are one file, so that they change at one moment. */
void writeEngineKey(const TamoHostCertServer &server, const string &identifier) {
    const Descriptor keys = openDirectory(kEngineKeyDirectory);
    SecretText whole;
    whole.text.reserve(strlen(server.key) + kPassphraseSize + sizeof(kPassphraseLine));
    if (server.passphrase != nullptr) {
        whole.text.append(kPassphraseLine).append(server.passphrase).append("\n");
    }
    whole.text.append(server.key);
    const string beside = "." + identifier;
    unlinkat(keys.get(), beside.c_str(), 0);
    writeNew(keys.get(), beside, whole.text);
    if (renameat(keys.get(), beside.c_str(), keys.get(), (identifier + ".pem").c_str()) != 0) {
        failSystem("writing the key", identifier);
    }
    fsync(keys.get());
}

void writeVersion(int directory, const TamoHostCertServer &server, const string &identifier) {
    writeNew(directory, kChainFile, server.chain);
    if (server.extra != nullptr) {
        writeNew(directory, kExtraFile, {server.extra, server.extraSize});
    }
    if (server.inEngine != 0) {
        writeNew(directory, kEngineKeyFile, identifier);
        writeEngineKey(server, identifier);
    } else {
        writeNew(directory, kKeyFile, server.key);
        if (server.passphrase != nullptr) {
            writeNew(directory, kPassphraseFile, server.passphrase);
        }
    }
    fsync(directory);
}

void installServer(const TamoHostCertServer &server) {
    KeyIdentifier identifier;
    checkServer(server, &identifier);
    const WritersTurn turn;
    const Descriptor all = openDirectory(kServerDirectory);
    const string entry = std::to_string(server.certId);
    const string version = freshName(entry);
    try {
        if (mkdirat(all.get(), version.c_str(), 0700) != 0) {
            failSystem("making the directory", version);
        }
        const Descriptor directory(
            openat(all.get(), version.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        writeVersion(directory.get(), server, identifier.text);
        replaceEntry(all.get(), entry, version);
    } catch (...) {
        removeTree(all.get(), version);
        removeUnusedKeys(all.get());
        throw;
    }
    removeVersions(all.get(), 0);
}

void removeServer(uint32_t certId) {
    const WritersTurn turn;
    const Descriptor all = openDirectory(kServerDirectory);
    const string entry = std::to_string(certId);
    if (certId < kFirstCertId || certId - kFirstCertId >= kCertIds ||
        faccessat(all.get(), entry.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        refuse(TAMO_HOST_NOT_FOUND,
               "the certificate %u is not installed: 'tamoctl cert list' shows those that are",
               certId);
    }
    replaceEntry(all.get(), entry, "");
    removeVersions(all.get(), certId);
}

/* ---- CA certificates and revocation lists ---- */

/* The name that an installed file gets: the library finds CA certificates and lists by their names. */
string installedName(const char *source, bool isList) {
    string name = source;
    const size_t dot = name.rfind('.');
    const string ending = dot == string::npos ? "" : name.substr(dot);
    if (ending != ".pem" && ending != ".PEM") {
        name = name.substr(0, dot) + ".pem";
    }
    const bool saysList = name.find("crl") != string::npos || name.find("CRL") != string::npos;
    if (isList && !saysList) {
        name.insert(name.size() - 4, "_crl");
    }
    if (name[0] == '.' || name.find('/') != string::npos || name.size() > NAME_MAX ||
        (!isList && saysList)) {
        refuse(TAMO_HOST_INVALID,
               "'%s' cannot be installed by this name: readers would take it for a list, or not "
               "see it; rename it",
               source);
    }
    return name;
}

void checkFile(const TamoHostCertFile &file, bool isList) {
    const ForgivenErrors forgiven;
    const BioOwner pem = openText(file.text, isList ? "list" : "certificate");
    const bool good = isList ? CrlOwner(PEM_read_bio_X509_CRL(pem.get(), nullptr, nullptr,
                                                              noPassPhrase())) != nullptr
                             : firstCertificate(file.text, "certificate") != nullptr;
    if (!good) {
        refuse(TAMO_HOST_INVALID,
               "'%s' holds no %s in PEM, or a damaged one: 'openssl %s -inform DER' converts one "
               "in DER",
               file.source, isList ? "revocation list" : "certificate", isList ? "crl" : "x509");
    }
}

/* Renames between the directory of new files and the readers', which are undone unless all were done. */
class FileMoves {
  public:
    FileMoves(int fresh, int readers) : fresh_(fresh), readers_(readers) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~FileMoves() {
        for (size_t at = moves_.size(); !kept_ && at > 0; at--) {
            undo(moves_[at - 1]);
        }
        fsync(readers_);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    FileMoves(const FileMoves &) = delete;
    FileMoves &operator=(const FileMoves &) = delete;

    /* Puts a new file in a name's place; what was there goes to the new file's. */
    void install(const string &fresh, const string &name) {
        struct stat status;
        if (fstatat(readers_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(status.st_mode)) {
            errno = EISDIR;
            failSystem("installing", name);
        }
        moves_.push_back({fresh, name, false});
        if (renameat2(fresh_, fresh.c_str(), readers_, name.c_str(), RENAME_EXCHANGE) == 0) {
            moves_.back().hadFormer = true;
        } else if (renameat(fresh_, fresh.c_str(), readers_, name.c_str()) != 0) {
            moves_.pop_back();
            failSystem("installing", name);
        }
    }

    void remove(const string &aside, const string &name) {
        moves_.push_back({aside, name, false});
        if (renameat(readers_, name.c_str(), fresh_, aside.c_str()) != 0) {
            moves_.pop_back();
            refuse(TAMO_HOST_NOT_FOUND,
                   "there is no '%s' to remove: 'tamoctl cert list' shows the names", name.c_str());
        }
        removes_ = true;
    }

    /* All are done; what they replaced is removed. */
    void keep() {
        kept_ = true;
        for (const Move &move : moves_) {
            unlinkat(fresh_, move.fresh.c_str(), 0);
        }
    }

  private:
    struct Move {
        string fresh, name;
        bool hadFormer;
    };

    void undo(const Move &move) {
        if (move.hadFormer || removes_) {
            (void)renameat(fresh_, move.fresh.c_str(), readers_, move.name.c_str());
        } else {
            unlinkat(readers_, move.name.c_str(), 0);
        }
    }

    int fresh_, readers_;
    sigset_t before_;
    std::vector<Move> moves_;
    bool kept_ = false, removes_ = false;
};

const char *directoryOf(uint32_t kind) {
    if (kind != TAMO_HOST_CERT_CA && kind != TAMO_HOST_CERT_CRL) {
        refuse(TAMO_HOST_INVALID, "there are no files of the kind %u", kind);
    }
    return kind == TAMO_HOST_CERT_CA ? kCaDirectory : kCrlDirectory;
}

void installFiles(uint32_t kind, std::span<TamoHostCertFile> files) {
    const char *directory = directoryOf(kind);
    std::set<string> names;
    for (TamoHostCertFile &file : files) {
        if (file.source == nullptr || file.text == nullptr) {
            refuse(TAMO_HOST_INVALID, "%s", kNullArgument);
        }
        checkFile(file, kind == TAMO_HOST_CERT_CRL);
        const string name = installedName(file.source, kind == TAMO_HOST_CERT_CRL);
        (void)snprintf(file.name, sizeof(file.name), "%s", name.c_str());
        if (!names.insert(name).second) {
            refuse(TAMO_HOST_INVALID,
                   "'%s' and another file would both be installed as '%s': rename one of them",
                   file.source, name.c_str());
        }
    }
    const WritersTurn turn;
    const Descriptor fresh = openDirectory(kNewDirectory), readers = openDirectory(directory);
    for (const TamoHostCertFile &file : files) {
        writeNew(fresh.get(), file.name, file.text);
    }
    FileMoves moves(fresh.get(), readers.get());
    for (const TamoHostCertFile &file : files) {
        moves.install(file.name, file.name);
    }
    moves.keep();
}

void removeFiles(uint32_t kind, std::span<const char *const> names) {
    const char *directory = directoryOf(kind);
    const WritersTurn turn;
    const Descriptor fresh = openDirectory(kNewDirectory), readers = openDirectory(directory);
    FileMoves moves(fresh.get(), readers.get());
    for (const char *given : names) {
        if (given == nullptr) {
            refuse(TAMO_HOST_INVALID, "%s", kNullArgument);
        }
        const string name = given;
        if (name.empty() || name[0] == '.' || name.find('/') != string::npos) {
            refuse(TAMO_HOST_NOT_FOUND,
                   "there is no '%s' to remove: 'tamoctl cert list' shows the names", name.c_str());
        }
        moves.remove(name, name);
    }
    moves.keep();
}

/* ---- what is installed ---- */

using Visit = void (*)(const TamoHostCertEntry *entry, void *context);

void listServers(Visit visit, void *context) {
    const string path = nativeOf(kServerDirectory);
    const Descriptor server(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!server.isOpen()) {
        return;
    }
    const std::vector<KeptVersion> kept = keptVersions(server.get());
    const auto tell = [&](const string &id, const string &place, int64_t until) {
        const string file = path + "/" + place + "/" + kChainFile;
        const bool inEngine =
            faccessat(server.get(), (place + "/" + kEngineKeyFile).c_str(), F_OK, 0) == 0;
        const TamoHostCertEntry entry = {TAMO_HOST_CERT_SERVER, id.c_str(), file.c_str(), until,
                                         inEngine};
        visit(&entry, context);
    };
    for (uint32_t certId = kFirstCertId; certId < kFirstCertId + kCertIds; certId++) {
        const string id = std::to_string(certId);
        if (faccessat(server.get(), id.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
            tell(id, id, 0);
        }
        for (const KeptVersion &version : kept) {
            if (version.certId == certId) {
                tell(id, version.name, version.until);
            }
        }
    }
}

void listFiles(uint32_t kind, Visit visit, void *context) {
    const string path = nativeOf(directoryOf(kind));
    const Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const string &name :
         directory.isOpen() ? namesIn(directory.get()) : std::vector<string>{}) {
        const string file = path + "/" + name;
        const TamoHostCertEntry entry = {kind, name.c_str(), file.c_str(), 0, 0};
        visit(&entry, context);
    }
}

uint32_t refuseNull(char *why, uint32_t size) {
    return tellFault({TAMO_HOST_INVALID, kNullArgument}, why, size);
}

}  // namespace

}  // namespace tamo::certificates

using namespace tamo::certificates;

uint32_t TamoHostCertInstall(const TamoHostCertServer *server, char *why, uint32_t size) {
    if (server == nullptr || server->chain == nullptr || server->key == nullptr) {
        return refuseNull(why, size);
    }
    return guarded(why, size, [&] { installServer(*server); });
}

uint32_t TamoHostCertRemove(uint32_t certId, char *why, uint32_t size) {
    return guarded(why, size, [&] { removeServer(certId); });
}

uint32_t TamoHostCertInstallFiles(uint32_t kind, TamoHostCertFile *files, uint32_t count, char *why,
                                  uint32_t size) {
    if (files == nullptr) {
        return refuseNull(why, size);
    }
    return guarded(why, size, [&] { installFiles(kind, {files, count}); });
}

uint32_t TamoHostCertRemoveFiles(uint32_t kind, const char *const *names, uint32_t count, char *why,
                                 uint32_t size) {
    if (names == nullptr) {
        return refuseNull(why, size);
    }
    return guarded(why, size, [&] { removeFiles(kind, {names, count}); });
}

uint32_t TamoHostCertList(void (*visit)(const TamoHostCertEntry *entry, void *context),
                          void *context) {
    if (visit == nullptr) {
        return refuseNull(nullptr, 0);
    }
    return guarded(nullptr, 0, [&] {
        listServers(visit, context);
        listFiles(TAMO_HOST_CERT_CA, visit, context);
        listFiles(TAMO_HOST_CERT_CRL, visit, context);
    });
}
