/* Passwords of the configuration: see secret.h. */
#include "secret.h"

#include <strings.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "output.h"
#include "tamo_om_keym_client.h"

namespace tamoctl {

namespace {

/* The library gives these to key management before they are stored. */
constexpr std::string_view kEncryptedKeys[] = {"Conf.SIPCallParam.sipPwd",
                                               "Conf.H323CallParam.gkPwd"};
/* This one it keeps as it is. */
constexpr std::string_view kClearKey = "Conf.ServerParam.pwd";
constexpr const char *kOwner = "TamoUIConf";
constexpr size_t kEncryptedSize = 312;
/* How the texts of key management begin. */
constexpr std::string_view kEncryptedMark = "k1:";

/* Keys do not depend on letter case. */
bool sameKey(std::string_view one, std::string_view other) {
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

/* Reads a line from a descriptor, byte by byte: what follows it is not this program's. False at the end
 * of the input, and for a line that does not fit. */
bool readLine(int input, Secret *secret) {
    secret->length = 0;
    for (char c = 0; secret->length + 1 < sizeof(secret->text);) {
        const ssize_t got = read(input, &c, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0 || c == '\n') {
            secret->text[secret->length] = 0;
            return got > 0 || secret->length != 0;
        }
        secret->text[secret->length++] = c;
    }
    return false;
}

/* Reads a line that the terminal does not show. */
bool askOnTerminal(const std::string &prompt, Secret *secret) {
    termios shown = {};
    tcgetattr(STDIN_FILENO, &shown);
    termios hidden = shown;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    fprintf(stderr, "%s", prompt.c_str());
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    const bool read = readLine(STDIN_FILENO, secret);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown);
    fputc('\n', stderr);
    return read;
}

}  // namespace

Secret::~Secret() {
    explicit_bzero(text, sizeof(text));
}

bool isKeptEncrypted(std::string_view key) {
    return !sameKey(key, kClearKey);
}

bool isClearSecret(std::string_view key, std::string_view value) {
    const bool isEncryptedKey =
        std::any_of(std::begin(kEncryptedKeys), std::end(kEncryptedKeys),
                    [&](std::string_view each) { return sameKey(key, each); });
    return isEncryptedKey && !value.empty() && !value.starts_with(kEncryptedMark);
}

bool isPassword(std::string_view key, std::string_view value) {
    return isClearSecret(key, value) || (sameKey(key, kClearKey) && !value.empty());
}

void readSecret(const Command &command, const char *key, Secret *secret) {
    bool read = false;
    if (isatty(STDIN_FILENO) == 1) {
        Secret again;
        const std::string name = printable(key);
        read = askOnTerminal("Value of " + name + ": ", secret) &&
               askOnTerminal("The same again: ", &again);
        if (read && strcmp(secret->text, again.text) != 0) {
            fail(command, "the two values differ: nothing was stored");
        }
    } else {
        read = readLine(STDIN_FILENO, secret);
    }
    if (!read || secret->length == 0 || strlen(secret->text) != secret->length) {
        fail(command, "no value was read: one line of 1 to %zu bytes is wanted; nothing was stored",
             sizeof(secret->text) - 1);
    }
}

void encryptSecret(const Command &command, Secret *secret) {
    char encrypted[kEncryptedSize] = {};
    uint32_t length = 0;
    const int32_t result = TamoOmKeymEncrypt(
        kOwner, secret->text, static_cast<uint32_t>(secret->length), encrypted, &length);
    if (result != 0) {
        failHost(command, "nothing was stored: the value cannot be encrypted",
                 static_cast<uint32_t>(result));
    }
    explicit_bzero(secret->text, sizeof(secret->text));
    snprintf(secret->text, sizeof(secret->text), "%s", encrypted);
    secret->length = length;
}

}  // namespace tamoctl
