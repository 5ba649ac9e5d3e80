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

#include "command_cert.h"
#include "commands.h"
#include "common/openssl_owner.h"
#include "output.h"
#include "rows.h"
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
    std::string fault;    /* why there is nothing else to show */
    std::string mismatch; /* what is wrong with its key */
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

/* Whether the certificate's own key, in the file beside it, can be used with it. */
void examineKey(Row *row, const Command &command, const std::string &chainPath,
                const SecretText &pem) {
    const std::string directory = chainPath.substr(0, chainPath.rfind('/') + 1);
    SecretText text, phrase;
    if (access((directory + "key.pem").c_str(), R_OK) != 0) {
        row->mismatch = "its key is missing";
        return;
    }
    readFile(command, (directory + "key.pem").c_str(), &text);
    if (access((directory + "passphrase").c_str(), R_OK) == 0) {
        readPassphrase(command, (directory + "passphrase").c_str(), &phrase);
    }
    const CertificateOwner own(
        PEM_read_bio_X509(openText(pem).get(), nullptr, nullptr, noPassPhrase()));
    const KeyOwner key(
        PEM_read_bio_PrivateKey(openText(text).get(), nullptr, nullptr, phrase.text.data()));
    if (key == nullptr) {
        row->mismatch = "its key cannot be read with the pass phrase beside it";
    } else if (own != nullptr && X509_check_private_key(own.get(), key.get()) != 1) {
        row->mismatch = "its key does not belong to it";
    }
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

/* What a walk over the store has found. */
struct Found {
    const Command &command;
    std::vector<Row> all;
};

/* One entry of the store. What cannot be read is a row too. */
void addRow(const TamoHostCertEntry *entry, void *context) {
    auto *found = static_cast<Found *>(context);
    constexpr const char *kKinds[] = {"server", "ca", "crl"};
    Row row(entry->keptUntil != 0 ? "replaced" : kKinds[entry->kind], entry->name);
    struct stat status = {};
    if (stat(entry->path, &status) != 0) {
        row.fault = strerror(errno);
    } else if (!S_ISREG(status.st_mode) || status.st_size > off_t{kMaxFileSize}) {
        row.fault = S_ISREG(status.st_mode) ? "more than 1 MiB" : "not a regular file";
    } else {
        SecretText pem;
        readFile(found->command, entry->path, &pem);
        if (entry->kind == TAMO_HOST_CERT_CRL) {
            describeList(&row, pem);
        } else {
            describeCertificate(&row, pem);
        }
        if (entry->kind == TAMO_HOST_CERT_SERVER && entry->inEngine == 0 && row.fault.empty()) {
            examineKey(&row, found->command, entry->path, pem);
        }
    }
    row.keptUntil = entry->keptUntil;
    row.inEngine = entry->inEngine != 0;
    found->all.push_back(std::move(row));
}

/* As "2026-11-24T18:30:00Z". */
std::string momentText(int64_t seconds) {
    const time_t moment = static_cast<time_t>(seconds);
    tm fields = {};
    char text[32];
    gmtime_r(&moment, &fields);
    return {text, strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields)};
}

/* Everything that is installed. */
std::vector<Row> readInstalled(const Command &command) {
    const ForgivenErrors forgiven;
    Found found = {command, {}};
    const uint32_t result = TamoHostCertList(addRow, &found);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot list the certificates", result);
    }
    return std::move(found.all);
}

Cell orNone(const std::string &text) {
    return text.empty() ? Cell::none("") : Cell(text);
}

int listCertificates(const Command &command, const Arguments &arguments) {
    Rows table(command, arguments,
               {{"KIND", "kind"},
                {"NAME", "name", false, true},
                {"SUBJECT", "subject", false, true},
                {"ISSUER", "issuer", false, true},
                {"FROM", "from"},
                {"UNTIL", "until"},
                {"DAYS", "daysLeft", true},
                {nullptr, "expired"},
                {"KEY", "key", false, true},
                {nullptr, "inEngine"},
                {nullptr, "keptUntil"},
                {nullptr, "fault"}});
    for (const Row &row : readInstalled(command)) {
        const bool isWhole = row.fault.empty(), hasKey = row.kind == "server" || row.keptUntil != 0;
        const std::string kept = row.keptUntil == 0 ? "" : momentText(row.keptUntil);
        const std::string key = row.key + (row.inEngine ? ", in the engine" : "") +
                                (kept.empty() ? "" : ", kept until " + kept);
        if (!table.add({row.kind, row.name,
                        isWhole ? orNone(row.subject) : Cell::none("(" + row.fault + ")"),
                        orNone(row.issuer), orNone(row.from), orNone(row.until),
                        row.hasEnd ? Cell(row.daysLeft) : Cell::none("-"),
                        row.hasEnd ? Cell::truth(row.daysLeft < 0) : Cell::none(""),
                        row.key.empty() ? Cell::none(key) : Cell::both(key, row.key),
                        hasKey ? Cell::truth(row.inEngine) : Cell::none(""), orNone(kept),
                        orNone(row.fault)})) {
            break;
        }
    }
    return table.finish();
}

/* ---- install and remove ---- */

uint32_t readCertId(const Command &command, const char *text) {
    uint32_t certId = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, certId);
    if (parsed != end || error != std::errc() || certId < kFirstCertId || certId > kLastCertId) {
        failUsage(command, "invalid certificate id '%s': must be %u to %u", text, kFirstCertId,
                  kLastCertId);
    }
    return certId;
}

/* The user's files are read before anything is looked for below the device root. */
int installFiles(const Command &command, const Arguments &arguments, uint32_t kind) {
    char why[kWhySize];
    if (arguments.operands().empty()) {
        failUsage(command, "a file is missing");
    }
    std::vector<std::string> names;
    std::vector<SecretText> texts;
    for (const char *path : arguments.operands()) {
        names.push_back(baseName(path));
        readFile(command, path, &texts.emplace_back());
    }
    std::vector<TamoHostCertFile> files;
    for (size_t at = 0; at < texts.size(); at++) {
        files.push_back({names[at].c_str(), texts[at].text.c_str(), ""});
    }
    requireRoot(command, Access::change);
    if (TamoHostCertInstallFiles(kind, files.data(), static_cast<uint32_t>(files.size()), why,
                                 sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "nothing was installed: %s", why);
    }
    for (const TamoHostCertFile &file : files) {
        printf("installed %s\n", printable(file.name).c_str());
    }
    return kSuccess;
}

int removeFiles(const Command &command, const Arguments &arguments, uint32_t kind) {
    char why[kWhySize];
    const std::span<char *const> names = arguments.operands();
    if (names.empty()) {
        failUsage(command, "a name is missing");
    }
    requireRoot(command, Access::change);
    if (TamoHostCertRemoveFiles(kind, names.data(), static_cast<uint32_t>(names.size()), why,
                                sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "nothing was removed: %s", why);
    }
    return kSuccess;
}

}  // namespace

int runCertList(const Command &command, const Arguments &arguments) {
    requireRoot(command);
    return listCertificates(command, arguments);
}

int runCertInstall(const Command &command, const Arguments &arguments) {
    const std::span<char *const> words = arguments.operands();
    if (words.size() != 3) {
        failUsage(command, "ID, CHAIN and KEY are needed");
    }
    const uint32_t certId = readCertId(command, words[0]);
    const char *phraseFile = arguments.text("passphrase"), *extraFile = arguments.text("extra");
    SecretText chain, key, phrase, extra;
    readFile(command, words[1], &chain);
    readFile(command, words[2], &key);
    if (phraseFile != nullptr) {
        readPassphrase(command, phraseFile, &phrase);
    }
    if (extraFile != nullptr) {
        readFile(command, extraFile, &extra);
    }
    requireRoot(command, Access::change);
    char why[kWhySize];
    const TamoHostCertServer server = {certId,
                                       chain.text.c_str(),
                                       key.text.c_str(),
                                       phraseFile == nullptr ? nullptr : phrase.text.c_str(),
                                       extraFile == nullptr ? nullptr : extra.text.data(),
                                       static_cast<uint32_t>(extra.text.size()),
                                       arguments.has("engine")};
    if (TamoHostCertInstall(&server, why, sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "certificate %u was not installed: %s", certId, why);
    }
    return kSuccess;
}

int runCertRemove(const Command &command, const Arguments &arguments) {
    if (arguments.operands().empty()) {
        failUsage(command, "an ID is missing");
    }
    const uint32_t certId = readCertId(command, arguments.operands()[0]);
    requireRoot(command, Access::change);
    char why[kWhySize];
    if (TamoHostCertRemove(certId, why, sizeof(why)) != TAMO_HOST_OK) {
        fail(command, "%s", why);
    }
    return kSuccess;
}

int runCertCaInstall(const Command &command, const Arguments &arguments) {
    return installFiles(command, arguments, TAMO_HOST_CERT_CA);
}

int runCertCaRemove(const Command &command, const Arguments &arguments) {
    return removeFiles(command, arguments, TAMO_HOST_CERT_CA);
}

int runCertCrlInstall(const Command &command, const Arguments &arguments) {
    return installFiles(command, arguments, TAMO_HOST_CERT_CRL);
}

int runCertCrlRemove(const Command &command, const Arguments &arguments) {
    return removeFiles(command, arguments, TAMO_HOST_CERT_CRL);
}

std::vector<std::string> certificateNames(const std::string &kind) {
    std::vector<std::string> names;
    if (holdsDeviceRoot(rootInUse())) {
        for (const Row &row : readInstalled(commands().front())) {
            if (row.kind == kind) {
                names.push_back(row.name);
            }
        }
    }
    return names;
}

void examineCertificates(const Command &command, const FindingFunction &report) {
    constexpr int64_t kSoon = 30;
    for (const Row &row : readInstalled(command)) {
        const std::string subject = row.kind + " " + row.name;
        const bool isList = row.kind == "crl";
        if (!row.fault.empty()) {
            report("certificate", subject, row.fault, "install it again");
        } else if (row.hasEnd && row.daysLeft < 0 && row.keptUntil == 0) {
            report("certificate", subject, "it expired on " + row.until,
                   isList ? "install the issuer's newest list" : "install a new one");
        } else if (row.hasEnd && row.daysLeft < kSoon && !isList && row.keptUntil == 0) {
            report("certificate", subject,
                   "it expires in " + std::to_string(row.daysLeft) + " days, on " + row.until,
                   "install a new one before");
        }
        if (!row.mismatch.empty()) {
            report("certificate", subject, row.mismatch,
                   "install the certificate with its own key");
        }
    }
}

}  // namespace tamoctl
