/* tamoctl cert list: subject, issuer, dates and keys of what is installed. */
#include <openssl/asn1.h>

#include <cinttypes>
#include <cstring>
#include <ctime>

#include "cert_files.h"
#include "command_cert.h"
#include "output.h"

namespace tamoctl {

namespace {

constexpr int64_t kSecondsPerDay = 86400;

struct Row {
    Row(std::string rowKind, std::string rowName)
        : kind(std::move(rowKind)), name(std::move(rowName)) {}

    std::string kind, name, subject, issuer, from, until, key;
    int64_t daysLeft = 0;
    bool hasEnd = false;
    std::string fault; /* why there is nothing else to show */
};

std::string nameText(const X509_NAME *name) {
    const tamo::BioOwner memory(BIO_new(BIO_s_mem()));
    char *text = nullptr;
    if (memory == nullptr || X509_NAME_print_ex(memory.get(), name, 0, XN_FLAG_RFC2253) < 0) {
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

void describeCertificate(Row *row, const tamo::SecretFile &pem) {
    const std::vector<tamo::CertificateOwner> all = readCertificates(pem);
    if (all.empty()) {
        row->fault = "no certificate in PEM";
        return;
    }
    const tamo::QuietErrors quiet;
    X509 *own = all.front().get();
    row->subject = nameText(X509_get_subject_name(own));
    row->issuer = nameText(X509_get_issuer_name(own));
    row->from = dateText(X509_get0_notBefore(own));
    setEnd(row, X509_get0_notAfter(own));
    row->key = keyText(X509_get0_pubkey(own));
}

void describeList(Row *row, const tamo::SecretFile &pem) {
    const ListOwner list = readList(pem);
    if (list == nullptr) {
        row->fault = "no revocation list in PEM";
        return;
    }
    row->issuer = nameText(X509_CRL_get_issuer(list.get()));
    row->from = dateText(X509_CRL_get0_lastUpdate(list.get()));
    setEnd(row, X509_CRL_get0_nextUpdate(list.get()));
}

void describeFile(Row *row, int directory, const std::string &file) {
    tamo::SecretFile pem;
    const int error = tamo::readSecretFile(directory, file.c_str(), &pem);
    if (error != 0) {
        row->fault = error == EFBIG ? "more than 1 MiB" : strerror(error);
    } else if (row->kind == "crl") {
        describeList(row, pem);
    } else {
        describeCertificate(row, pem);
    }
}

void collectServers(const Command &command, std::vector<Row> *rows) {
    const tamo::Descriptor server = openDeviceDirectory(command, tamo::kServerDirectory);
    for (uint32_t index = 0; index < tamo::kCertIds; index++) {
        const std::string id = std::to_string(tamo::kFirstCertId + index);
        if (faccessat(server.get(), id.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        Row row("server", id);
        describeFile(&row, server.get(), id + "/" + tamo::kChainFile);
        if (faccessat(server.get(), (id + "/" + tamo::kEngineKeyFile).c_str(), F_OK, 0) == 0) {
            row.key += ", in the engine";
        }
        rows->push_back(row);
    }
}

void collectFiles(const Command &command, const char *kind, const char *devicePath,
                  std::vector<Row> *rows) {
    const tamo::Descriptor directory = openDeviceDirectory(command, devicePath);
    for (const std::string &name : namesIn(directory.get())) {
        Row row(kind, name);
        describeFile(&row, directory.get(), name);
        rows->push_back(row);
    }
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
        table.add({row.kind, row.name, subject, row.issuer, row.from, row.until,
                   row.hasEnd ? std::to_string(row.daysLeft) : "-", row.key});
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
        }
        cJSON_AddItemToArray(json.get(), entry);
    }
    printJson(json);
}

}  // namespace

int listCertificates(const Command &command, bool asJson) {
    std::vector<Row> rows;
    collectServers(command, &rows);
    collectFiles(command, "ca", tamo::kCaDirectory, &rows);
    collectFiles(command, "crl", tamo::kCrlDirectory, &rows);
    if (asJson) {
        printRowsAsJson(rows);
    } else {
        printRows(rows);
    }
    return kSuccess;
}

}  // namespace tamoctl
