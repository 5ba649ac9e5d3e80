/* tamoctl cert: server certificates, CA certificates and revocation lists. */
#include "command_cert.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <climits>
#include <cstring>

#include "cert_files.h"
#include "tamo_om_cert_client.h"

namespace tamoctl {

namespace {

enum CertOption : int { kOptionEngine = 300, kOptionPassphrase, kOptionExtra };

/* What the command line says besides its words. */
struct CertOptions {
    bool json = false, engine = false;
    const char *passphrase = nullptr, *extra = nullptr;
};

CertOptions readOptions(CommandLine *line) {
    CertOptions options;
    for (int code; (code = line->next()) != -1;) {
        switch (code) {
            case kOptionJson:
                options.json = true;
                break;
            case kOptionEngine:
                options.engine = true;
                break;
            case kOptionPassphrase:
                options.passphrase = optarg;
                break;
            default:
                options.extra = optarg;
        }
    }
    return options;
}

uint32_t readCertId(const Command &command, const char *text) {
    uint32_t certId = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, certId);
    if (parsed != end || error != std::errc() || certId < tamo::kFirstCertId ||
        certId - tamo::kFirstCertId >= tamo::kCertIds) {
        failUsage(command, "'%s' is no certificate id: they are %u to %u", text, tamo::kFirstCertId,
                  tamo::kFirstCertId + tamo::kCertIds - 1);
    }
    return certId;
}

std::string baseName(const char *path) {
    const std::string_view text = path;
    return std::string(text.substr(text.rfind('/') + 1));
}

/* The name that an installed file gets: the library finds CA certificates and lists by their names. */
std::string installedName(const char *path, bool isList) {
    std::string name = baseName(path);
    const size_t dot = name.rfind('.');
    std::string ending = dot == std::string::npos ? "" : name.substr(dot);
    if (ending != ".pem" && ending != ".PEM") {
        name = name.substr(0, dot) + ".pem";
    }
    const bool saysList =
        name.find("crl") != std::string::npos || name.find("CRL") != std::string::npos;
    if (isList && !saysList) {
        name.insert(name.size() - 4, "_crl");
    }
    return !isList && saysList ? "" : name;
}

int installFiles(const Command &command, std::span<char *> paths, bool isList) {
    const tamo::Descriptor directory =
        openDeviceDirectory(command, isList ? tamo::kCrlDirectory : tamo::kCaDirectory);
    for (const char *path : paths) {
        tamo::SecretFile pem;
        readFile(command, path, &pem);
        if (isList ? readList(pem) == nullptr : readCertificates(pem).empty()) {
            fail(command, "'%s' holds no %s in PEM: 'openssl %s -inform DER' converts one in DER",
                 path, isList ? "revocation list" : "certificate", isList ? "crl" : "x509");
        }
        const std::string name = installedName(path, isList);
        if (name.empty() || name[0] == '.' || name.size() > NAME_MAX) {
            fail(command,
                 "'%s' cannot be installed by this name: readers would take it for a list, or not "
                 "see it; rename it",
                 path);
        }
        writeFile(command, directory.get(), name, pem.data, pem.size);
    }
    return kSuccess;
}

int removeFiles(const Command &command, std::span<char *> names, bool isList) {
    const char *devicePath = isList ? tamo::kCrlDirectory : tamo::kCaDirectory;
    const tamo::Descriptor directory = openDeviceDirectory(command, devicePath);
    for (const char *name : names) {
        if (strchr(name, '/') != nullptr || unlinkat(directory.get(), name, 0) != 0) {
            fail(command, "there is no '%s' to remove: 'tamoctl cert list' shows the names", name);
        }
    }
    return kSuccess;
}

int removeCertificate(const Command &command, const char *id) {
    const uint32_t certId = readCertId(command, id);
    const tamo::Descriptor server = openDeviceDirectory(command, tamo::kServerDirectory);
    if (faccessat(server.get(), id, F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        fail(command,
             "the certificate %u is not installed: 'tamoctl cert list' shows those that are",
             certId);
    }
    useVersion(command, server.get(), certId, "");
    return kSuccess;
}

/* ca or crl, install or remove, names. */
int runFiles(const Command &command, std::span<char *> words, bool isList) {
    const std::string_view verb = words.size() > 1 ? words[1] : "";
    if ((verb != "install" && verb != "remove") || words.size() < 3) {
        failUsage(command, "'%s' goes on with install FILE... or remove NAME...", words[0]);
    }
    return verb == "install" ? installFiles(command, words.subspan(2), isList)
                             : removeFiles(command, words.subspan(2), isList);
}

int runCert(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "",
                     {kJsonOption,
                      {"engine", no_argument, nullptr, kOptionEngine},
                      {"passphrase", required_argument, nullptr, kOptionPassphrase},
                      {"extra", required_argument, nullptr, kOptionExtra}});
    const CertOptions options = readOptions(&line);
    const std::span<char *> words = line.operands();
    const std::string_view verb = words.empty() ? "" : words[0];
    const bool isInstall = verb == "install";
    if ((options.json && verb != "list") ||
        (!isInstall &&
         (options.engine || options.passphrase != nullptr || options.extra != nullptr))) {
        failUsage(command, "one of the options is not for '%s'", std::string(verb).c_str());
    }
    const bool isFiles = verb == "ca" || verb == "crl";
    const size_t operands = isInstall ? 4 : verb == "remove" ? 2 : verb == "list" ? 1 : 0;
    if (!isFiles && (operands == 0 || words.size() != operands)) {
        failUsage(command, "it takes list, install ID CHAIN KEY, remove ID, ca ... or crl ...");
    }
    const uint32_t certId = isInstall ? readCertId(command, words[1]) : 0;
    requireRoot(command);
    rootPath(command, "/data");  // or else there is no root to work in
    if (TamoOmCertClientInit(nullptr) != 0) {
        fail(command,
             "the certificate service's directories cannot be used: the record above says why");
    }
    if (isFiles) {
        return runFiles(command, words, verb == "crl");
    }
    if (isInstall) {
        return installCertificate(command, {certId, words[2], words[3], options.passphrase,
                                            options.extra, options.engine});
    }
    return verb == "list" ? listCertificates(command, options.json)
                          : removeCertificate(command, words[1]);
}

}  // namespace

const Command kCertCommand = {
    "cert",
    "list [--json] | install [OPTION...] ID CHAIN KEY | remove ID | ca|crl install|remove ...",
    "show and change certificates, keys and revocation lists",
    "Works on the files of the certificate service; running programs hear of each change.\n"
    "\n"
    "  list                     what is installed: subject, issuer, dates, days left, key\n"
    "  install ID CHAIN KEY     a server certificate: its chain with its own certificate first,\n"
    "                           and its private key, both in PEM; replaces the one of that id\n"
    "  remove ID                a server certificate with its key\n"
    "  ca install FILE...       trusted CA certificates in PEM\n"
    "  ca remove NAME...\n"
    "  crl install FILE...      revocation lists in PEM\n"
    "  crl remove NAME...\n"
    "\n"
    "IDs are 257 to 266; the library's certificate types 0 to 3 are 263, 265, 259 and 260. A key "
    "that\n"
    "does not belong to the certificate is refused. Installed files may get other names, by which "
    "the\n"
    "library finds them: those of CA certificates end in '.pem', those of lists contain 'crl' "
    "too.\n"
    "\n"
    "Options:\n"
    "  --passphrase FILE  the pass phrase of an encrypted key: the one line of a file\n"
    "  --engine           the key stays in the engine, which signs with it (keyless)\n"
    "  --extra FILE       the second part of certificate 259 or 260\n"
    "  --json             print JSON (list)\n"
    "\n"
    "Examples:\n"
    "  tamoctl cert install 263 chain.pem key.pem\n"
    "  tamoctl cert install --engine --passphrase phrase.txt 265 chain.pem key.pem\n"
    "  tamoctl cert ca install company_root.pem\n"
    "  tamoctl cert list --json | jq '.[] | select(.daysLeft < 30)'\n",
    runCert};

}  // namespace tamoctl
