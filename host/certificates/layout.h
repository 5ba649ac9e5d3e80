/* Where the certificate service keeps its files, for whoever reads or writes them.
 *
 *     data/certfile/CA/             trusted CA certificates
 *     data/certfile/CRL/            revocation lists
 *     data/certfile/.new/           what a writer has not put in place yet
 *     data/certfile/server/263      one server certificate: a link to the version in use
 *     data/certfile/server/.263-X/  a version, whose files never change:
 *         cert.pem                  the chain, the server's own certificate first
 *         key.pem, passphrase       the private key and, when it is encrypted, its pass phrase
 *         engine_key                in place of the two: the identifier of a key of the engine
 *         extra.pem                 the second part, certificates 259 and 260 only
 *     data/tamo_conference/CA/      the fixed layout's address CA directory, which the library fills
 *     keys/X.pem                    the engine's keys by their identifiers, the pass phrase of an
 *                                   encrypted one in a line before it
 *
 * A version is replaced by renaming a link, so that a certificate, its key and its pass phrase change
 * at one moment. The old version stays for a while, for processes that were told its paths. A plain
 * directory in place of the link works too, and is what an administrator without tamoctl makes. Names
 * that begin with a dot belong to writers alone. */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo::certificates {

constexpr uint32_t kFirstCertId = 257;
constexpr uint32_t kCertIds = 10;
/* Certificates of two parts. */
constexpr uint32_t kTwoPartIds[] = {259, 260};

constexpr bool hasTwoParts(uint32_t certId) {
    return certId == kTwoPartIds[0] || certId == kTwoPartIds[1];
}

constexpr char kCertDirectory[] = "/data/certfile";
constexpr char kServerDirectory[] = "/data/certfile/server";
constexpr char kCaDirectory[] = "/data/certfile/CA";
constexpr char kCrlDirectory[] = "/data/certfile/CRL";
constexpr char kNewDirectory[] = "/data/certfile/.new";
constexpr char kFixedDirectory[] = "/data/tamo_conference";
constexpr char kFixedAddressDirectory[] = "/data/tamo_conference/CA";

constexpr char kChainFile[] = "cert.pem";
constexpr char kKeyFile[] = "key.pem";
constexpr char kPassphraseFile[] = "passphrase";
constexpr char kEngineKeyFile[] = "engine_key";
constexpr char kExtraFile[] = "extra.pem";

constexpr char kEngineDevicePath[] = "/system/lib64/libopenssl_engine.so";
constexpr char kEngineKeyDirectory[] = "/keys";

constexpr size_t kMaxCertSize = 1 << 20;
/* With its terminator. */
constexpr size_t kPassphraseSize = 64;
/* The name of a version's directory, with its terminator. */
constexpr size_t kVersionNameSize = 64;

/* How long a replaced version stays for processes that were told its paths. */
constexpr int64_t kReplacedSeconds = 600;

}  // namespace tamo::certificates
