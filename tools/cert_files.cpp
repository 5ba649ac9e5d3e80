/* See cert_files.h. */
#include "cert_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "tamo_os_file.h"

namespace tamoctl {

namespace {

[[noreturn]] void failSystem(const Command &command, const char *what, const std::string &name) {
    fail(command, "%s '%s' failed: %s", what, name.c_str(), strerror(errno));
}

/* A hidden name that nobody else uses. */
std::string freshName(const std::string &prefix) {
    uint64_t number = 0;
    (void)!getrandom(&number, sizeof(number), 0);
    char digits[17];
    snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(number));
    return "." + prefix + "-" + digits;
}

bool writeAll(int file, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(file, data, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        const size_t step = written > 0 ? static_cast<size_t>(written) : 0;
        data += step;
        size -= step;
    }
    return fsync(file) == 0;
}

/* The version that the certificate's entry leads to; empty when it is none of ours. */
std::string versionInUse(int server, const std::string &entry) {
    char target[64];
    const ssize_t length = readlinkat(server, entry.c_str(), target, sizeof(target));
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

bool isOld(int server, const std::string &name) {
    struct stat status;
    return fstatat(server, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           time(nullptr) - status.st_mtim.tv_sec > tamo::kOldVersionSeconds;
}

/* Puts a link to `version` in the entry's place at one moment. What was there, a link or a directory
 * made by hand, ends up under the returned hidden name. */
std::string replaceEntry(const Command &command, int server, const std::string &entry,
                         const std::string &version) {
    const std::string aside = freshName(entry);
    if (version.empty()) {
        if (renameat(server, entry.c_str(), server, aside.c_str()) != 0) {
            failSystem(command, "removing the certificate", entry);
        }
        return aside;
    }
    if (symlinkat(version.c_str(), server, aside.c_str()) != 0) {
        failSystem(command, "linking the certificate", entry);
    }
    if (renameat2(server, aside.c_str(), server, entry.c_str(), RENAME_EXCHANGE) != 0 &&
        renameat(server, aside.c_str(), server, entry.c_str()) != 0) {
        const int error = errno;
        unlinkat(server, aside.c_str(), 0);
        errno = error;
        failSystem(command, "putting in place the certificate", entry);
    }
    return aside;
}

}  // namespace

tamo::Descriptor openDeviceDirectory(const Command &command, const char *devicePath) {
    const std::string path = rootPath(command, devicePath);
    tamo::Descriptor opened(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.isOpen()) {
        failSystem(command, "opening", path);
    }
    return opened;
}

void readFile(const Command &command, const char *path, tamo::SecretFile *content) {
    const int error = tamo::readSecretFile(AT_FDCWD, path, content);
    if (error == EFBIG) {
        fail(command, "'%s' has more than 1 MiB: no certificate, key or list is that large", path);
    }
    if (error != 0) {
        fail(command, "'%s' cannot be read: %s", path,
             error == EINVAL ? "it is no file" : strerror(error));
    }
}

std::vector<tamo::CertificateOwner> readCertificates(const tamo::SecretFile &pem) {
    const tamo::QuietErrors quiet;
    std::vector<tamo::CertificateOwner> all;
    while (tamo::CertificateOwner next = tamo::readCertificate(pem)) {
        all.push_back(std::move(next));
    }
    if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
        all.clear();
    }
    return all;
}

ListOwner readList(const tamo::SecretFile &pem) {
    const tamo::QuietErrors quiet;
    return ListOwner(PEM_read_bio_X509_CRL(pem.bio.get(), nullptr, nullptr, nullptr));
}

void writeFile(const Command &command, int directory, const std::string &name, const char *data,
               size_t size) {
    const std::string beside = freshName("tamoctl");
    const tamo::Descriptor file(
        openat(directory, beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.isOpen() || !writeAll(file.get(), data, size) ||
        renameat(directory, beside.c_str(), directory, name.c_str()) != 0) {
        const int error = errno;
        unlinkat(directory, beside.c_str(), 0);
        errno = error;
        failSystem(command, "writing", name);
    }
    fsync(directory);
}

std::vector<std::string> namesIn(int directory, bool hidden) {
    std::vector<std::string> names;
    const int again = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *walk = again < 0 ? nullptr : fdopendir(again);
    while (const dirent *entry = walk == nullptr ? nullptr : readdir(walk)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && (hidden || name[0] != '.')) {
            names.emplace_back(name);
        }
    }
    if (walk != nullptr) {
        closedir(walk);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void removeTree(int parent, const std::string &name) {
    {
        const tamo::Descriptor directory(
            openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        for (const std::string &file :
             directory.isOpen() ? namesIn(directory.get(), true) : std::vector<std::string>{}) {
            unlinkat(directory.get(), file.c_str(), 0);
        }
    }
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) {
        unlinkat(parent, name.c_str(), 0);
    }
}

void useVersion(const Command &command, int server, uint32_t certId, const std::string &name) {
    const std::string entry = std::to_string(certId);
    const std::string former = versionInUse(server, entry);
    const std::string aside = replaceEntry(command, server, entry, name);
    fsync(server);
    if (!former.empty()) {
        unlinkat(server, aside.c_str(), 0);
    }
    // From now on the old one ages.
    utimensat(server, former.empty() ? aside.c_str() : former.c_str(), nullptr, 0);
    for (const std::string &version : namesIn(server, true)) {
        const bool ours = version.starts_with("." + entry + "-") && version != name;
        if (ours && (name.empty() || isOld(server, version))) {
            removeTree(server, version);
        }
    }
    removeUnusedKeys(command, server);
}

void removeUnusedKeys(const Command &command, int server) {
    std::set<std::string> used;
    for (const std::string &version : namesIn(server, true)) {
        tamo::SecretFile identifier;
        const std::string file = version + "/" + tamo::kEngineKeyFile;
        if (tamo::readSecretFile(server, file.c_str(), &identifier) == 0) {
            used.emplace(identifier.data, strcspn(identifier.data, "\n"));
        }
    }
    const tamo::Descriptor keys = openDeviceDirectory(command, tamo::kEngineKeyDirectory);
    for (const std::string &name : namesIn(keys.get())) {
        const std::string identifier = name.substr(0, name.find('.'));
        if (tamo::isKeyIdentifier(identifier.c_str()) && !used.contains(identifier)) {
            unlinkat(keys.get(), name.c_str(), 0);
        }
    }
}

}  // namespace tamoctl
