/* What an administrator does to the certificate service. */
#pragma once
#include <string>

#include "tests/cert/cert_files.h"
#include "tests/process/program.h"

/* A device path below the test's root. */
std::string native(const std::string &devicePath);

/* Installs a party's certificate with its key, by the tool; with a pass phrase, the key is encrypted. */
Outcome install(const std::string &id, const certs::Party &party, const Words &options = {},
                const std::string &phrase = "");

/* Takes all certificates away at one moment, as whoever watches makes the directories anew. */
void removeAll();
