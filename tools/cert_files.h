/* The certificate service's files as tamoctl writes and reads them: see cert_layout.h. */
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "host/base/descriptor.h"
#include "host/certificates/key.h"
#include "tamoctl.h"

namespace tamoctl {

using ListOwner = std::unique_ptr<X509_CRL, tamo::OpensslRelease<X509_CRL_free>>;

/* Opens a directory of the device, below which the other operations work. */
tamo::Descriptor openDeviceDirectory(const Command &command, const char *devicePath);

/* Reads a file of at most 1 MiB that the user named, or ends the program. */
void readFile(const Command &command, const char *path, tamo::SecretFile *content);

/* The certificates of a text; empty when there is none or one is damaged. */
std::vector<tamo::CertificateOwner> readCertificates(const tamo::SecretFile &pem);

/* The revocation list of a text, null when there is none. */
ListOwner readList(const tamo::SecretFile &pem);

/* Writes a file of mode 0600 beside and renames it: no reader sees less than the whole of it. Ends the
 * program when that fails. */
void writeFile(const Command &command, int directory, const std::string &name, const char *data,
               size_t size);

/* The names in a directory, in order; hidden ones on demand only. */
std::vector<std::string> namesIn(int directory, bool hidden = false);

/* Removes a directory and the files in it. */
void removeTree(int parent, const std::string &name);

/* Makes `name`, a version with its files, the one in use for a certificate, or none when it is empty.
 * Versions that nobody can be reading any more are removed. */
void useVersion(const Command &command, int server, uint32_t certId, const std::string &name);

/* Removes the engine's keys that no version refers to. */
void removeUnusedKeys(const Command &command, int server);

}  // namespace tamoctl
