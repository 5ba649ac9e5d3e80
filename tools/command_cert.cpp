/* tamoctl cert: server certificates, CA certificates and revocation lists. The host's operations on the
 * store check and change it (tamo_host.h); what is shown of a certificate is read here. */
#include <fcntl.h>
#include <openssl/asn1.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstring>
#include <ctime>

#include "common/openssl_owner.h"
#include "output.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr uint32_t kFirstCertId = 257, kLastCertId = 266;
constexpr size_t kMaxFileSize = 1 << 20;
constexpr size_t kMaxPassphrase = 63;
constexpr int64_t kSecondsPerDay = 86400;
constexpr size_t kWhySize = 1024;

/* ---- the user's files ---- */

/* A file's contents, wiped when they leave scope. */
struct SecretText {
    std::string text;
    SecretText() = default;
    SecretText(SecretText &&other) = default;
    ~SecretText() { OPENSSL_cleanse(text.data(), text.size()); }
};

/* Reads a file of at most 1 MiB that the user named, or ends the program. */
void readFile(const Command &command, const char *path, SecretText *content) {
    struct stat status = {};
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0 || fstat(file, &status) != 0) {
        fail(command, "'%s' cannot be read: %s", path, strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        fail(command, "'%s' cannot be read: it is not a regular file", path);
    }
    if (status.st_size > off_t{kMaxFileSize}) {
        fail(command, "'%s' has more than 1 MiB: no certificate, key or list is that large", path);
    }
    content->text.resize(static_cast<size_t>(status.st_size));
    size_t length = 0;
    for (ssize_t got = 0; length < content->text.size(); length += static_cast<size_t>(got)) {
        got = read(file, content->text.data() + length, content->text.size() - length);
        if (got <= 0) {
            fail(command, "'%s' cannot be read: %s", path, got < 0 ? strerror(errno) : "it shrank");
        }
    }
    close(file);
}

/* The one line of a file. */
void readPassphrase(const Command &command, const char *path, SecretText *phrase) {
    readFile(command, path, phrase);
    const size_t length = strcspn(phrase->text.c_str(), "\r\n");
    if (length == 0 || length > kMaxPassphrase) {
        fail(command, "'%s' holds no pass phrase of 1 to %zu characters in its first line", path,
             kMaxPassphrase);
    }
    OPENSSL_cleanse(phrase->text.data() + length, phrase->text.size() - length);
    phrase->text.resize(length);
}

std::string baseName(const char *path) {
    const std::string_view text = path;
    return std::string(text.substr(text.rfind('/') + 1));
}

/* ---- list ---- */

struct Row {
    Row(std::string rowKind, std::string rowName)
        : kind(std::move(rowKind)), name(std::move(rowName)) {}

    std::string kind, name, subject, issuer, from, until, key;
    int64_t daysLeft = 0, keptUntil = 0;
    bool hasEnd = false, inEngine = false;
    std::string fault; /* why there is nothing else to show */
};

/* In UTF-8, with control characters escaped. */
constexpr unsigned long kNameFlags = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;

std::string nameText(const X509_NAME *name) {
    const BioOwner memory(BIO_new(BIO_s_mem()));
    char *text = nullptr;
    if (memory == nullptr || X509_NAME_print_ex(memory.get(), name, 0, kNameFlags) < 0) {
        return "";
    }
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<size_t>(length)};
}

/* As "2026-11-24", in universal time; empty for none. */
std::string dateText(const ASN1_TIME *date) {
    tm fields = {};
    char text[32];
    if (date == nullptr || ASN1_TIME_to_tm(date, &fields) != 1) {
        return "";
    }
    return {text, strftime(text, sizeof(text), "%Y-%m-%d", &fields)};
}

void setEnd(Row *row, const ASN1_TIME *date) {
    tm fields = {};
    row->until = dateText(date);
    row->hasEnd = date != nullptr && ASN1_TIME_to_tm(date, &fields) == 1;
    if (row->hasEnd) {
        const int64_t left = int64_t{timegm(&fields)} - int64_t{time(nullptr)};
        // Whole days; what ended a moment ago has -1, not 0.
        row->daysLeft = (left < 0 ? left - kSecondsPerDay + 1 : left) / kSecondsPerDay;
    }
}

std::string keyText(EVP_PKEY *key) {
    if (key == nullptr) {
        return "unknown";
    }
    char curve[64];
    size_t length = 0;
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
            return "RSA " + std::to_string(EVP_PKEY_get_bits(key));
        case EVP_PKEY_EC:
            return EVP_PKEY_get_group_name(key, curve, sizeof(curve), &length) == 1
                       ? std::string("EC ") + curve
                       : "EC";
        default:
            return EVP_PKEY_get0_type_name(key) != nullptr ? EVP_PKEY_get0_type_name(key)
                                                           : "unknown";
    }
}

/* A person is never asked for a pass phrase. */
BioOwner openText(const SecretText &pem) {
    return BioOwner(BIO_new_mem_buf(pem.text.data(), static_cast<int>(pem.text.size())));
}

void describeCertificate(Row *row, const SecretText &pem) {
    const CertificateOwner own(
        PEM_read_bio_X509(openText(pem).get(), nullptr, nullptr, noPassPhrase()));
    if (own == nullptr) {
        row->fault = "no certificate in PEM";
        return;
    }
    row->subject = nameText(X509_get_subject_name(own.get()));
    row->issuer = nameText(X509_get_issuer_name(own.get()));
    row->from = dateText(X509_get0_notBefore(own.get()));
    setEnd(row, X509_get0_notAfter(own.get()));
    row->key = keyText(X509_get0_pubkey(own.get()));
}

void describeList(Row *row, const SecretText &pem) {
    const CrlOwner list(
        PEM_read_bio_X509_CRL(openText(pem).get(), nullptr, nullptr, noPassPhrase()));
    if (list == nullptr) {
        row->fault = "no revocation list in PEM";
        return;
    }
    row->issuer = nameText(X509_CRL_get_issuer(list.get()));
    row->from = dateText(X509_CRL_get0_lastUpdate(list.get()));
    setEnd(row, X509_CRL_get0_nextUpdate(list.get()));
}

struct Rows {
    const Command &command;
    std::vector<Row> all;
};

/* One entry of the store. What cannot be read is a row too. */
void addRow(const TamoHostCertEntry *entry, void *context) {
    auto *rows = static_cast<Rows *>(context);
    constexpr const char *kKinds[] = {"server", "ca", "crl"};
    Row row(entry->keptUntil != 0 ? "replaced" : kKinds[entry->kind], entry->name);
    struct stat status = {};
    if (stat(entry->path, &status) != 0) {
        row.fault = strerror(errno);
    } else if (!S_ISREG(status.st_mode) || status.st_size > off_t{kMaxFileSize}) {
        row.fault = S_ISREG(status.st_mode) ? "more than 1 MiB" : "not a regular file";
    } else {
        SecretText pem;
        readFile(rows->command, entry->path, &pem);
        if (entry->kind == TAMO_HOST_CERT_CRL) {
            describeList(&row, pem);
        } else {
            describeCertificate(&row, pem);
        }
    }
    row.keptUntil = entry->keptUntil;
    row.inEngine = entry->inEngine != 0;
    rows->all.push_back(std::move(row));
}

/* As "2026-11-24T18:30:00Z". */
std::string momentText(int64_t seconds) {
    const time_t moment = static_cast<time_t>(seconds);
    tm fields = {};
    char text[32];
    gmtime_r(&moment, &fields);
    return {text, strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields)};
}

void printRows(const std::vector<Row> &rows) {
    Table table({{"KIND", false},
                 {"NAME", false},
                 {"SUBJECT", false},
                 {"ISSUER", false},
                 {"FROM", false},
                 {"UNTIL", false},
                 {"DAYS", true},
                 {"KEY", false}});
    for (const Row &row : rows) {
        const std::string subject = row.fault.empty() ? row.subject : "(" + row.fault + ")";
        const std::string key =
            row.key + (row.inEngine ? ", in the engine" : "") +
            (row.keptUntil != 0 ? ", kept until " + momentText(row.keptUntil) : "");
        table.add({row.kind, row.name, subject, row.issuer, row.from, row.until,
                   row.hasEnd ? std::to_string(row.daysLeft) : "-", key});
    }
    if (!table.empty()) {
        table.print();
    }
}

void printRowsAsJson(const std::vector<Row> &rows) {
    const Json json(cJSON_CreateArray());
    for (const Row &row : rows) {
        cJSON *entry = cJSON_CreateObject();
        const std::pair<const char *, const std::string *> members[] = {
            {"kind", &row.kind},     {"name", &row.name},   {"subject", &row.subject},
            {"issuer", &row.issuer}, {"from", &row.from},   {"until", &row.until},
            {"key", &row.key},       {"fault", &row.fault},
        };
        for (const auto &[key, text] : members) {
            if (!text->empty()) {
                addText(entry, key, *text);
            }
        }
        if (row.hasEnd) {
            cJSON_AddNumberToObject(entry, "daysLeft", static_cast<double>(row.daysLeft));
            cJSON_AddBoolToObject(entry, "expired", row.daysLeft < 0);
        }
        if (row.kind == "server" || row.kind == "replaced") {
            cJSON_AddBoolToObject(entry, "inEngine", row.inEngine);
        }
        if (row.keptUntil != 0) {
            addText(entry, "keptUntil", momentText(row.keptUntil));
        }
        cJSON_AddItemToArray(json.get(), entry);
    }
    printJson(json);
}

int listCertificates(const Command &command, bool asJson) {
    const ForgivenErrors forgiven;
    Rows rows = {command, {}};
    const uint32_t result = TamoHostCertList(addRow, &rows);
    if (result != TAMO_HOST_OK) {
        failHost(command, "listing the certificates", result);
    }
    if (asJson) {
        printRowsAsJson(rows.all);
    } else {
        printRows(rows.all);
    }
    return kSuccess;
}

/* ---- install and remove ---- */

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
    if (parsed != end || error != std::errc() || certId < kFirstCertId || certId > kLastCertId) {
        failUsage(command, "not a certificate id: '%s' (valid ids are %u to %u)", text,
                  kFirstCertId, kLastCertId);
    }
    return certId;
}

/* What the user named, read as the user before anything is looked for below the device root. */
struct Sources {
    SecretText chain, key, passphrase, extra;
    std::vector<std::string> names;
    std::vector<SecretText> files;
};

void readSources(const Command &command, const CertOptions &options, std::span<char *> words,
                 Sources *sources) {
    if (words[0] == std::string_view("install")) {
        readFile(command, words[2], &sources->chain);
        readFile(command, words[3], &sources->key);
        if (options.passphrase != nullptr) {
            readPassphrase(command, options.passphrase, &sources->passphrase);
        }
        if (options.extra != nullptr) {
            readFile(command, options.extra, &sources->extra);
        }
        return;
    }
    for (const char *path : words.subspan(2)) {
        sources->names.push_back(baseName(path));
        readFile(command, path, &sources->files.emplace_back());
    }
}

int installCertificate(const Command &command, const CertOptions &options, uint32_t certId,
                       const Sources &sources) {
    char why[kWhySize];
    const TamoHostCertServer server = {
        certId,
        sources.chain.text.c_str(),
        sources.key.text.c_str(),
        options.passphrase == nullptr ? nullptr : sources.passphrase.text.c_str(),
        options.extra == nullptr ? nullptr : sources.extra.text.data(),
        static_cast<uint32_t>(sources.extra.text.size()),
        options.engine};
    if (TamoHostCertInstall(&server, why, sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "certificate %u was not installed: %s", certId, why);
    }
    return kSuccess;
}

int removeCertificate(const Command &command, uint32_t certId) {
    char why[kWhySize];
    if (TamoHostCertRemove(certId, why, sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "%s", why);
    }
    return kSuccess;
}

int installFiles(const Command &command, const Sources &sources, uint32_t kind) {
    char why[kWhySize];
    std::vector<TamoHostCertFile> files;
    for (size_t at = 0; at < sources.files.size(); at++) {
        files.push_back({sources.names[at].c_str(), sources.files[at].text.c_str(), ""});
    }
    if (TamoHostCertInstallFiles(kind, files.data(), static_cast<uint32_t>(files.size()), why,
                                 sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "nothing was installed: %s", why);
    }
    for (const TamoHostCertFile &file : files) {
        printf("installed %s\n", printable(file.name).c_str());
    }
    return kSuccess;
}

int removeFiles(const Command &command, std::span<char *> names, uint32_t kind) {
    char why[kWhySize];
    if (TamoHostCertRemoveFiles(kind, names.data(), static_cast<uint32_t>(names.size()), why,
                                sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "nothing was removed: %s", why);
    }
    return kSuccess;
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
        failUsage(command, "an option does not belong to '%s'", std::string(verb).c_str());
    }
    const bool isFiles = verb == "ca" || verb == "crl";
    const std::string_view filesVerb = isFiles && words.size() > 1 ? words[1] : "";
    const size_t operands = isInstall ? 4 : verb == "remove" ? 2 : verb == "list" ? 1 : 0;
    if (isFiles && ((filesVerb != "install" && filesVerb != "remove") || words.size() < 3)) {
        failUsage(command, "'%s' needs 'install FILE...' or 'remove NAME...'", words[0]);
    }
    if (!isFiles && (operands == 0 || words.size() != operands)) {
        failUsage(command, "%s",
                  isInstall          ? "'install' needs ID CHAIN KEY"
                  : verb == "remove" ? "'remove' needs one ID"
                  : verb == "list"   ? "'list' takes no operands"
                  : words.empty()    ? "one of list, install, remove, ca and crl is needed"
                                     : "the first word must be list, install, remove, ca or crl");
    }
    const uint32_t certId = isInstall || verb == "remove" ? readCertId(command, words[1]) : 0;
    Sources sources;
    if (isInstall || filesVerb == "install") {
        readSources(command, options, words, &sources);
    }
    requireRoot(command);
    rootPath(command, "/data");  // or else there is no root to work in
    if (isFiles) {
        const uint32_t kind = verb == "ca" ? TAMO_HOST_CERT_CA : TAMO_HOST_CERT_CRL;
        return filesVerb == "install" ? installFiles(command, sources, kind)
                                      : removeFiles(command, words.subspan(2), kind);
    }
    if (isInstall) {
        return installCertificate(command, options, certId, sources);
    }
    return verb == "list" ? listCertificates(command, options.json)
                          : removeCertificate(command, certId);
}

}  // namespace

const Command kCertCommand = {
    "cert",
    "list [--json] | install [OPTION...] ID CHAIN KEY | remove ID | ca|crl install|remove ...",
    "show and change certificates, keys and revocation lists",
    "Works on the files of the certificate service; running programs hear of each change.\n"
    "\n"
    "  list                     what is installed: subject, issuer, dates, days left, key; of "
    "what\n"
    "                           was replaced, until when it is kept\n"
    "  install ID CHAIN KEY     a server certificate: its chain with its own certificate first,\n"
    "                           and its private key, both in PEM; replaces the one of that id\n"
    "  remove ID                a server certificate with its key\n"
    "  ca install FILE...       trusted CA certificates in PEM\n"
    "  ca remove NAME...\n"
    "  crl install FILE...      revocation lists in PEM\n"
    "  crl remove NAME...\n"
    "\n"
    "IDs are 257 to 266; the library's certificate types 0 to 3 are 263, 265, 259 and 260. Files "
    "of "
    "CA\n"
    "certificates and lists get names by which the library finds them, which are printed: those of "
    "CA\n"
    "certificates end in '.pem', those of lists contain 'crl' too. Several files are installed "
    "together\n"
    "or not at all. A replaced certificate is removed with its key at once when no program uses "
    "the\n"
    "service, else ten minutes later by the programs that run; until then, list shows it.\n"
    "\n"
    "Options:\n"
    "  --passphrase FILE  the pass phrase of an encrypted key: the one line of a file\n"
    "  --engine           the key stays in the engine, which works with it (keyless)\n"
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
