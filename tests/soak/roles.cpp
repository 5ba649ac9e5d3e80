/* What the processes of the soak do: see soak.h. Each works with numbers that rise by one, and notes a
 * number when the work is acknowledged. */
#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cinttypes>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "conf_cert.h"
#include "conf_log_adapter.h"
#include "conf_msg_api.h"
#include "soak.h"
#include "tamo_host.h"
#include "tamo_om_log_client.h"
#include "tests/cert/cert_files.h"
#include "xml_utility.h"

namespace soak {

Self self;

namespace {

volatile sig_atomic_t isEnding = 0;
int ownJournal = -1;

int openJournal(const std::string &path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

void note(uint32_t number, uint32_t who = 0, uint32_t whoLife = 0) {
    const Note written = {self.life, who, whoLife, number};
    if (write(ownJournal, &written, sizeof(written)) != ssize_t{sizeof(written)}) {
        fault("the journal takes no note");
    }
}

void rest(unsigned milliseconds) {
    usleep(milliseconds * 1000);
}

/* ---- messages ---- */

struct Letter {
    uint32_t sender, life, size;
    char rest[];
};

/* Runs in the receivers. */
uint32_t takeLetter(uint32_t number, void *data, uint32_t length) {
    const auto *letter = static_cast<const Letter *>(data);
    bool isWhole = length >= sizeof(Letter) && letter->size == length;
    for (uint32_t at = sizeof(Letter); isWhole && at < length; at++) {
        isWhole = static_cast<const char *>(data)[at] == static_cast<char>(number);
    }
    if (!isWhole) {
        fault("message %u of %u bytes is torn", number, length);
        return 1;
    }
    note(number, letter->sender, letter->life);
    return 0;
}

std::string queueName(uint32_t receiver) {
    return "Soak" + std::to_string(receiver);
}

int receive() {
    TamoHostQueue *queue = nullptr;
    if (TamoHostMsgOpen(queueName(self.id).c_str(), &queue) != TAMO_HOST_OK) {
        return 1;
    }
    OsMsgHeader *message = nullptr;
    /* Senders end first; what they queued is here by then. */
    while (TamoHostMsgReceive(queue, &message, 200) == TAMO_HOST_OK || isEnding == 0) {
        if (message != nullptr) {
            ConfCommMsgProcess(message);
            TamoHostMsgFree(message);
            message = nullptr;
        }
    }
    TamoHostMsgClose(queue);
    return 0;
}

/* Sends to the steady receiver with and without waiting, to the other one with waiting only: what waits
 * in a receiver dies with it. A note's `who` is the receiver. */
int send() {
    constexpr std::array<uint32_t, 6> kSizes = {16, 64, 64, 5000, 60000, 1 << 20};
    std::mt19937 random(self.id * 1000 + self.life);
    std::vector<char> buffer(kSizes.back());
    for (uint32_t number = 1; isEnding == 0; number++) {
        const uint32_t receiver = random() % 3 == 0 ? 1 : kSteady;
        const bool waits = receiver != kSteady || random() % 2 == 0;
        const uint32_t size = kSizes[number % 50 == 0 ? 5 : random() % 5];
        memset(buffer.data(), static_cast<char>(number), size);
        const Letter letter = {self.id, self.life, size};
        memcpy(buffer.data(), &letter, sizeof(letter));
        const std::string name = queueName(receiver);
        const uint32_t result =
            waits ? ConfCommMsgSynSendImpl(name.c_str(), takeLetter, number, buffer.data(), size,
                                           2000)
                  : ConfCommMsgAsynSend(name.c_str(), takeLetter, number, buffer.data(), size);
        if (result == 0) {
            note(number, receiver);
        }
        rest(number % 4 == 0 ? 2 : 0);
    }
    return 0;
}

/* ---- configuration ---- */

/* Two keys that always change together. */
int writeValues() {
    const std::string key =
        "Soak.w" + std::to_string(self.id) + "." + std::to_string(self.life) + ".";
    const std::string keys[] = {key + "a", key + "b"};
    for (uint32_t number = 1; isEnding == 0; number++) {
        const std::string value = std::to_string(number);
        ConfConfigOmRecord records[2] = {};
        for (int at = 0; at < 2; at++) {
            TamoOmConfigcopyStr2Key(&records[at], keys[at].c_str());
            TamoOmConfigcopyStr2Val(&records[at].value, value.c_str());
        }
        if (TamoOmConfigStringMset(records, 2) == 0) {
            note(number);
        }
        rest(5);
    }
    return 0;
}

std::map<std::string, uint32_t> seen;

/* A note of 0 tells that changes were missed. */
void takeChange(const TamoHostConfigChange &change) {
    uint32_t writer = 0;
    uint32_t life = 0;
    char which = 0;
    if (sscanf(change.key, "Soak.w%u.%u.%c", &writer, &life, &which) != 3) {
        return;
    }
    const auto number = static_cast<uint32_t>(strtoul(change.value, nullptr, 10));
    uint32_t *last = &seen[change.key];
    if (number < *last || (change.isAll == 0 && number == *last)) {
        fault("%s was told %u after %u", change.key, number, *last);
    }
    *last = number;
    if (which == 'a' && change.isAll != 0) {
        note(0, writer, life);
    }
    if (which == 'a') {
        note(number, writer, life);
    }
}

uint32_t visitChange(const TamoHostConfigChange *change, void *) {
    takeChange(*change);
    return 0;
}

int watch() {
    TamoHostConfigWatch *watch = nullptr;
    if (TamoHostConfigWatchOpen(&watch) != TAMO_HOST_OK) {
        return 1;
    }
    note(0, UINT32_MAX); /* from here on every write is seen */
    while (TamoHostConfigWatchNext(watch, 300, visitChange, nullptr) == TAMO_HOST_OK ||
           isEnding == 0) {
    }
    TamoHostConfigWatchClose(watch);
    return 0;
}

/* ---- records ---- */

int record() {
    OmLogCreateParam param = {512, 1000, 64 * 1024, "Soak.log"};
    uint16_t id = 0;
    if (TamoOmLogCreateLog(&param, &id) != 0) {
        return 1;
    }
    for (uint32_t number = 1; isEnding == 0; number++) {
        if (number % 100 == 0) {
            (void)TamoOmLogCreateLog(&param, &id);
        }
        if (TamoOmLogModuleLogRecord(3, id, "soak", 4, 1, "logger %u.%u %u.", self.id, self.life,
                                     number) == 0) {
            note(number);
        }
        rest(number % 3 == 0 ? 20 : 0);
    }
    return 0;
}

/* ---- settings files ---- */

constexpr size_t kFields = 60;
uint32_t fields[kFields];

ConfXmlNode *describe(int32_t) {
    ConfXmlNode *root = ConfXmlAddSingleStructNode(nullptr, "Root");
    for (size_t at = 0; at < kFields; at++) {
        char address[24];
        char name[16];
        snprintf(address, sizeof(address), "%" PRIuPTR, reinterpret_cast<uintptr_t>(&fields[at]));
        snprintf(name, sizeof(name), "field%zu", at);
        const ConfXmlValueNodeDesc field = {name, "UINT32"};
        ConfXmlValue value = {CONF_XML_ATTR_CHAR, {}, 0};
        value.value.text = address;
        ConfXmlAddSingleValueNode(root, &field, &value);
    }
    return root;
}

std::string savedFile(uint32_t saver, const char *suffix) {
    return "/data/saver" + std::to_string(saver) + suffix;
}

/* A saver goes on where the one before it was killed: the file is the same. */
int save() {
    const int64_t last = loadSaved(self.id);
    for (uint32_t number = last < 0 ? 1 : static_cast<uint32_t>(last) + 1; isEnding == 0;
         number++) {
        std::fill(fields, fields + kFields, number);
        if (ConfXmlSave(describe, savedFile(self.id, ".xml").c_str(),
                        savedFile(self.id, ".bak").c_str()) == 0) {
            note(number);
        }
        rest(10);
    }
    return 0;
}

/* ---- certificates ---- */

/* The serial number tells the installation. */
int install() {
    const std::string chain = self.journals + "/chain.pem";
    const std::string key = self.journals + "/key.pem";
    for (long serial = self.life * 10000L + 1; isEnding == 0; serial++) {
        const certs::Party party = certs::makeParty("soak", "EC", nullptr, serial);
        std::ofstream(chain) << certs::pem(party);
        std::ofstream(key) << certs::keyPem(party);
        const char *words[] = {TAMOCTL,       "cert",      "install", "263",
                               chain.c_str(), key.c_str(), nullptr};
        pid_t tool = -1;
        int status = -1;
        if (posix_spawn(&tool, TAMOCTL, nullptr, nullptr, const_cast<char **>(words), environ) ==
                0 &&
            waitpid(tool, &status, 0) == tool && status == 0) {
            note(static_cast<uint32_t>(serial));
        }
        rest(200);
    }
    return 0;
}

int serveTls() {
    long last = -1;
    while (isEnding == 0) {
        const long serial = loadServerCertificate();
        if (serial < last) {
            fault("certificate %ld was loaded after %ld", serial, last);
        }
        if (serial > 0) {
            note(static_cast<uint32_t>(serial));
            last = serial;
        }
        rest(20);
    }
    return 0;
}

}  // namespace

std::string journalOf(const std::string &role, uint32_t id) {
    return self.journals + "/" + role + "." + std::to_string(id);
}

void fault(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    const std::string line = self.role + " " + std::to_string(self.id) + "." +
                             std::to_string(self.life) + ": " + text + "\n";
    const int file = openJournal(self.journals + "/faults");
    (void)!write(file, line.data(), line.size());
    close(file);
}

int64_t loadSaved(uint32_t saver) {
    std::fill(fields, fields + kFields, 0);
    if (ConfXmlLoad(describe, savedFile(saver, ".xml").c_str(), savedFile(saver, ".bak").c_str()) !=
        0) {
        return -1;
    }
    for (const uint32_t field : fields) {
        if (field != fields[0]) {
            fault("the file of saver %u is a mixture of %u and %u", saver, fields[0], field);
            return -1;
        }
    }
    return fields[0];
}

long loadServerCertificate() {
    static const bool isReady = (ConfCertInit(nullptr), true);
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!isReady || ConfLoadServerCert(context.get(), 0) != 0) {
        return -1;
    }
    if (SSL_CTX_check_private_key(context.get()) != 1) {
        fault("certificate and key do not belong together");
        return -1;
    }
    return ASN1_INTEGER_get(X509_get0_serialNumber(SSL_CTX_get0_certificate(context.get())));
}

int runRole() {
    static const std::map<std::string, int (*)()> kRoles = {
        {"receiver", receive}, {"sender", send}, {"writer", writeValues}, {"watcher", watch},
        {"logger", record},    {"saver", save},  {"installer", install},  {"server", serveTls}};
    struct sigaction end = {};
    end.sa_handler = [](int) { isEnding = 1; };
    sigaction(SIGTERM, &end, nullptr);
    ownJournal = openJournal(journalOf(self.role, self.id));
    (void)TamoOmLogClientInit("C", 1);
    (void)ConfLogInit();
    SetLogLevel(0);
    return kRoles.at(self.role)();
}

}  // namespace soak
