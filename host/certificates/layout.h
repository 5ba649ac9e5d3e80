/* Where the certificate service keeps its files, for whoever reads or writes them.
 *
 *     data/certfile/CA/             trusted CA certificates
 *     data/certfile/CRL/            revocation lists
 *     data/certfile/server/263      one server certificate: a link to the version in use
 *     data/certfile/server/.263-X/  a version, whose files never change:
 *         cert.pem                  the chain, the server's own certificate first
 *         key.pem, passphrase       the private key and, when it is encrypted, its pass phrase
 *         engine_key                in place of the two: the identifier of a key of the engine
 *         extra.pem                 the second part, certificates 259 and 260 only
 *     keys/X.pem, keys/X.passphrase the engine's keys by their identifiers
 *
 * A version is replaced by renaming a link, so that a certificate, its key and its pass phrase change
 * at one moment; the old version stays for those who were told its paths. A plain directory in place of
 * the link works too, and is what a hand without tamoctl makes. Names that begin with a dot are nobody's
 * but the writers'. */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo {

constexpr uint32_t kFirstCertId = 257;
constexpr uint32_t kCertIds = 10;
/* Certificates of two parts. */
constexpr uint32_t kTwoPartIds[] = {259, 260};

constexpr char kCertDirectory[] = "/data/certfile";
constexpr char kServerDirectory[] = "/data/certfile/server";
constexpr char kCaDirectory[] = "/data/certfile/CA";
constexpr char kCrlDirectory[] = "/data/certfile/CRL";

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

/* A reader that was told a version's paths has so long to open them. */
constexpr int64_t kOldVersionSeconds = 600;

}  // namespace tamo
