/* Passwords of the configuration: which they are, how they are asked for, and how they are kept. */
#pragma once
#include <string_view>

#include "tamoctl.h"

namespace tamoctl {

/* A value that is wiped with its owner. */
struct Secret {
    char text[1024] = {};
    size_t length = 0;

    Secret() = default;
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
    ~Secret();
};

/* Whether a secret value of the key is encrypted. */
bool isKeptEncrypted(std::string_view key);

/* Whether the value of a key that is kept encrypted by the library is not encrypted. */
bool isClearSecret(std::string_view key, std::string_view value);

/* Whether the value must not stand on a command line. */
bool isPassword(std::string_view key, std::string_view value);

/* Asks for the key's value on the terminal, twice and without showing it, or reads a line of standard
 * input. */
void readSecret(const Command &command, const char *key, Secret *secret);

/* Encrypts the text in place, as the library does before it stores a password. */
void encryptSecret(const Command &command, Secret *secret);

}  // namespace tamoctl
