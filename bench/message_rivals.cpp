/* See message_rivals.h. */
#include "message_rivals.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#ifdef BENCH_DBUS
#include <dbus/dbus.h>
#endif
#ifdef BENCH_ZMQ
#include <zmq.h>
#endif

namespace rivals {

void check(bool good, const char *what) {
    if (!good) {
        std::fprintf(stderr, "message_bench: %s failed: %s\n", what, std::strerror(errno));
        std::exit(2);
    }
}

void pin(int core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    check(sched_setaffinity(0, sizeof(cores), &cores) == 0, "sched_setaffinity");
}

void sendFile(int socket, const char *bytes, size_t size) {
    const int file = memfd_create("bench", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    check(write(file, bytes, size) == static_cast<ssize_t>(size), "write");
    fcntl(file, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    cmsghdr *entry = CMSG_FIRSTHDR(&header);
    entry->cmsg_level = SOL_SOCKET;
    entry->cmsg_type = SCM_RIGHTS;
    entry->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(entry), &file, sizeof(file));
    check(sendmsg(socket, &header, MSG_NOSIGNAL) == 1, "sendmsg");
    close(file);
}

void receiveFile(int socket, char *bytes, size_t size) {
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    if (recvmsg(socket, &header, MSG_CMSG_CLOEXEC) != 1) {
        _exit(0);
    }
    int file = -1;
    std::memcpy(&file, CMSG_DATA(CMSG_FIRSTHDR(&header)), sizeof(file));
    void *mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    check(mapped != MAP_FAILED, "mmap");
    std::memcpy(bytes, mapped, size);
    munmap(mapped, size);
    close(file);
}

namespace {

[[maybe_unused]] std::string benchAddress(const char *prefix, const char *name) {
    return std::string(prefix) + std::getenv("TAMO_DEVICE_ROOT") + "/" + name;
}

#ifdef BENCH_DBUS

DBusHandlerResult answerCall(DBusConnection *connection, DBusMessage *call, void *) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    uint32_t value = 0;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID);
    ++value;
    DBusMessage *reply = dbus_message_new_method_return(call);
    dbus_message_append_args(reply, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusConnection *accepted = nullptr;

void acceptBus(DBusServer *, DBusConnection *connection, void *) {
    accepted = dbus_connection_ref(connection);
    dbus_connection_add_filter(connection, answerCall, nullptr, nullptr);
}

/* Watches of the listening server only; an accepted connection is driven by read_write_dispatch. */
dbus_bool_t addWatch(DBusWatch *watch, void *data) {
    *static_cast<DBusWatch **>(data) = watch;
    return TRUE;
}

void serveBus(const std::string &address) {
    DBusWatch *watch = nullptr;
    DBusServer *server = dbus_server_listen(address.c_str(), nullptr);
    check(server != nullptr, "dbus_server_listen");
    dbus_server_set_new_connection_function(server, acceptBus, nullptr, nullptr);
    dbus_server_set_watch_functions(
        server, addWatch, [](DBusWatch *, void *) {}, nullptr, &watch, nullptr);
    while (accepted == nullptr) {
        dbus_watch_handle(watch, DBUS_WATCH_READABLE);
        sched_yield();
    }
    while (dbus_connection_read_write_dispatch(accepted, -1)) {
    }
}

Row busRow() {
    const std::string address = benchAddress("unix:path=", "bench.bus");
    auto connection = std::make_shared<DBusConnection *>(nullptr);
    Row row;
    row.name = "D-Bus call between two peers";
    row.serve = [=] { serveBus(address); };
    row.connect = [=] {
        for (int i = 0; i < 1000 && *connection == nullptr; ++i) {
            *connection = dbus_connection_open_private(address.c_str(), nullptr);
            usleep(*connection == nullptr ? 1000 : 0);
        }
        check(*connection != nullptr, "dbus_connection_open_private");
    };
    row.operation = [=] {
        DBusMessage *call = dbus_message_new_method_call(nullptr, "/b", "b.b", "b");
        uint32_t value = 1;
        dbus_message_append_args(call, DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID);
        DBusMessage *reply =
            dbus_connection_send_with_reply_and_block(*connection, call, 10000, nullptr);
        dbus_message_unref(call);
        check(reply != nullptr, "D-Bus call");
        dbus_message_unref(reply);
    };
    return row;
}

#endif

#ifdef BENCH_ZMQ

Row zmqRow() {
    const std::string address = benchAddress("ipc://", "bench.zmq");
    auto socket = std::make_shared<void *>(nullptr);
    Row row;
    row.name = "libzmq REQ/REP over ipc";
    row.serve = [=] {
        void *replier = zmq_socket(zmq_ctx_new(), ZMQ_REP);
        check(zmq_bind(replier, address.c_str()) == 0, "zmq_bind");
        char buffer[16];
        for (;;) {
            const int size = zmq_recv(replier, buffer, sizeof(buffer), 0);
            zmq_send(replier, buffer, static_cast<size_t>(size), 0);
        }
    };
    row.connect = [=] {
        *socket = zmq_socket(zmq_ctx_new(), ZMQ_REQ);
        check(zmq_connect(*socket, address.c_str()) == 0, "zmq_connect");
    };
    row.operation = [=] {
        char buffer[16] = {};
        check(zmq_send(*socket, buffer, 4, 0) == 4, "zmq_send");
        check(zmq_recv(*socket, buffer, sizeof(buffer), 0) == 4, "zmq_recv");
    };
    return row;
}

#endif

}  // namespace

void addRivals([[maybe_unused]] std::vector<Row> *rows) {
#ifdef BENCH_DBUS
    rows->push_back(busRow());
#endif
#ifdef BENCH_ZMQ
    rows->push_back(zmqRow());
#endif
}

}  // namespace rivals
