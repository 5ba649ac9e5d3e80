/* A TLS server that the library equips, and equips anew when its certificate is replaced:
 *
 *     tamoctl cert install 263 chain.pem key.pem
 *     example_tls_server 4433 &
 *     openssl s_client -connect 127.0.0.1:4433 -CAfile chain.pem -quiet -ign_eof </dev/null
 *     tamoctl cert install 263 other_chain.pem other_key.pem    # running connections go on
 *
 * Each client gets one line, from a thread of its own: one that stands idle keeps nobody waiting, and is
 * left after ten seconds. Certificate 263 is the library's type 0; installed with --engine, its key
 * stays in the engine and the server signs through it, without a change here.
 */
#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "conf_cert.h"
#include "conf_log_adapter.h"

namespace {

constexpr uint32_t kType = 0;
constexpr timeval kPatience = {10, 0};

using Context = std::shared_ptr<SSL_CTX>;

std::mutex contextLock;
Context contextInUse;

Context currentContext() {
    const std::lock_guard guard(contextLock);
    return contextInUse;
}

/* Connections hold the context that they began with; new ones get the new one. */
bool equip() {
    const Context fresh(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (ConfLoadServerCert(fresh.get(), kType) != 0) {
        return false;
    }
    const std::lock_guard guard(contextLock);
    contextInUse = fresh;
    return true;
}

/* On the certificate service's thread; and once at start-up, for the certificate found then. */
void onCertificateChange(uint32_t argument) {
    if (argument == 0) {
        const bool equipped = equip();
        printf("the certificate changed: %s\n",
               equipped ? "new connections show it" : "going on with the former one, see the log");
        fflush(stdout);
    }
}

int listenOn(uint16_t port, sockaddr_in *address) {
    const int on = 1;
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(*address);
    const auto *where = reinterpret_cast<const sockaddr *>(address);
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(listening, where, size) != 0 || listen(listening, 128) != 0 ||
        getsockname(listening, reinterpret_cast<sockaddr *>(address), &size) != 0) {
        perror("listening");
        return -1;
    }
    return listening;
}

void serve(int connection) {
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
    const Context context = currentContext();
    const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(context.get()), SSL_free);
    SSL_set_fd(tls.get(), connection);
    if (SSL_accept(tls.get()) == 1) {
        char line[64];
        const int length =
            snprintf(line, sizeof(line), "welcome by %s\n", SSL_get_version(tls.get()));
        SSL_write(tls.get(), line, length);
        SSL_shutdown(tls.get());
        // What the client still sends is read, or else its system might drop the line unseen.
        shutdown(connection, SHUT_WR);
        while (read(connection, line, sizeof(line)) > 0) {
        }
    }
    close(connection);
}

}  // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    ConfLogInit();
    ConfCertInit(nullptr);
    ConfCertNotifyCallback(onCertificateChange);
    if (!equip()) {
        fputs("no certificate to serve with: tamoctl cert install 263 CHAIN KEY\n", stderr);
        return 1;
    }
    sockaddr_in address = {};
    const int listening = listenOn(static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 0), &address);
    if (listening < 0) {
        return 1;
    }
    printf("listening on 127.0.0.1:%u\n", ntohs(address.sin_port));
    fflush(stdout);
    // A few clients for a demonstration, else for ever.
    std::vector<std::thread> serving;
    for (int left = argc > 2 ? atoi(argv[2]) : -1; left != 0; left -= left > 0) {
        const int connection = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        std::thread thread(serve, connection);
        if (left > 0) {
            serving.push_back(std::move(thread));
        } else {
            thread.detach();
        }
    }
    for (std::thread &thread : serving) {
        thread.join();
    }
    close(listening);
    return 0;
}
