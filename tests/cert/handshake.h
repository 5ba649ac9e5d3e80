/* TLS contexts and handshakes between two of them in one thread. */
#pragma once
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace certs {

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

inline Context serverContext() {
    return {SSL_CTX_new(TLS_server_method()), SSL_CTX_free};
}

inline Context clientContext() {
    return {SSL_CTX_new(TLS_client_method()), SSL_CTX_free};
}

struct Handshake {
    bool done;         /* at both ends */
    long verified;     /* the client's view of its peer */
    std::string shown; /* the common name of the server's certificate */

    bool operator==(const Handshake &) const = default;
};

/* `version` 0: any; `suites` for TLS 1.2, null: any. */
inline Handshake shakeHands(SSL_CTX *serverSide, SSL_CTX *clientSide, int version = 0,
                            const char *suites = nullptr) {
    constexpr int kMostRoundTrips = 10;
    using Endpoint = std::unique_ptr<SSL, decltype(&SSL_free)>;
    const Endpoint server(SSL_new(serverSide), SSL_free), client(SSL_new(clientSide), SSL_free);
    SSL_set_min_proto_version(client.get(), version);
    SSL_set_max_proto_version(client.get(), version);
    if (suites != nullptr) {
        SSL_set_cipher_list(client.get(), suites);
    }
    BIO *ends[2] = {};
    BIO_new_bio_pair(&ends[0], 1 << 16, &ends[1], 1 << 16);
    SSL_set_bio(server.get(), ends[0], ends[0]);
    SSL_set_bio(client.get(), ends[1], ends[1]);
    SSL_set_accept_state(server.get());
    SSL_set_connect_state(client.get());
    bool done = false;
    for (int round = 0; round < kMostRoundTrips && !done; round++) {
        const int asked = SSL_do_handshake(client.get());
        done = SSL_do_handshake(server.get()) == 1 && asked == 1;
    }
    char name[64] = "";
    X509 *shown = SSL_get0_peer_certificate(client.get());
    if (shown != nullptr) {
        X509_NAME_get_text_by_NID(X509_get_subject_name(shown), NID_commonName, name, sizeof(name));
    }
    ERR_clear_error();
    return {done, SSL_get_verify_result(client.get()), name};
}

}  // namespace certs
