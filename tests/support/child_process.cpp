/* See child_process.h. A child finds its line to the parent at a fixed descriptor. */
#include "child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <ostream>
#include <utility>

#include "deadline.h"

namespace support {
namespace {

constexpr int kParentLine = 100;
constexpr char kRoleOption[] = "--child-role=";
constexpr int kUnknownRole = 125;

std::map<std::string, ChildFunction> &roles() {
    static std::map<std::string, ChildFunction> registered;
    return registered;
}

void sendLine(int fd, const std::string &line) {
    const std::string text = line + "\n";
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) {
            return;  // the other side has ended; whoever waits for an answer will see it
        }
        sent += n > 0 ? static_cast<size_t>(n) : 0;
    }
}

/* Takes one line out of what was received, or receives more. 1: a line, 0: the other side closed,
 * -1: the deadline passed. */
int receiveLine(int fd, std::string &unread, std::chrono::steady_clock::time_point *deadline,
                std::string &line) {
    for (;;) {
        const size_t end = unread.find('\n');
        if (end != std::string::npos) {
            line = unread.substr(0, end);
            unread.erase(0, end + 1);
            return 1;
        }
        int timeout = -1;
        if (deadline != nullptr) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *deadline - std::chrono::steady_clock::now());
            timeout = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, timeout);
        if (ready == 0) {
            return -1;
        }
        char buffer[4096];
        const ssize_t n = ready > 0 ? recv(fd, buffer, sizeof(buffer), 0) : -1;
        if (n == 0 || (n < 0 && errno != EINTR)) {
            return 0;
        }
        unread.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    }
}

ChildEnd endOf(int status) {
    return WIFEXITED(status) ? exited(WEXITSTATUS(status)) : killed(WTERMSIG(status));
}

pid_t spawn(const char *role, const ChildArguments &arguments, int line) {
    std::vector<std::string> words = {program_invocation_name, std::string(kRoleOption) + role};
    words.push_back("--parent=" + std::to_string(getpid()));
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, line, kParentLine);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        ADD_FAILURE() << "cannot start a child: " << std::strerror(error);
        return -1;
    }
    return pid;
}

}  // namespace

ChildRole::ChildRole(const char *name, ChildFunction function) {
    roles()[name] = std::move(function);
}

void tellParent(const std::string &line) {
    sendLine(kParentLine, line);
}

std::string hearParent() {
    static std::string unread;
    std::string line;
    receiveLine(kParentLine, unread, nullptr, line);
    return line;
}

std::ostream &operator<<(std::ostream &out, const ChildEnd &end) {
    return out << (end.normal ? "exit code " : "signal ") << end.code;
}

ChildEnd exited(int code) {
    return ChildEnd{true, code};
}

ChildEnd killed(int signal) {
    return ChildEnd{false, signal};
}

ChildProcess::ChildProcess(const char *role, const ChildArguments &arguments) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "socketpair: " << std::strerror(errno);
        return;
    }
    pid_ = spawn(role, arguments, ends[1]);
    close(ends[1]);
    line_ = ends[0];
}

ChildProcess::~ChildProcess() {
    kill();
    hangUp();
}

void ChildProcess::tell(const std::string &line) {
    sendLine(line_, line);
}

std::string ChildProcess::hear(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + patience(seconds);
    std::string line;
    if (receiveLine(line_, unread_, &deadline, line) < 0) {
        ADD_FAILURE() << "child " << pid_ << " said nothing in time";
    }
    return line;
}

void ChildProcess::signal(int number) {
    if (pid_ > 0) {
        ::kill(pid_, number);
    }
}

void ChildProcess::hangUp() {
    if (line_ >= 0) {
        close(line_);
        line_ = -1;
    }
}

ChildEnd ChildProcess::wait(double seconds) {
    if (pid_ <= 0) {
        ADD_FAILURE() << "there is no child to wait for";
        return killed(0);
    }
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd entry{descriptor, POLLIN, 0};
    if (descriptor >= 0 && poll(&entry, 1, static_cast<int>(patience(seconds).count())) == 0) {
        ADD_FAILURE() << "child " << pid_ << " did not end in time";
        ::kill(pid_, SIGKILL);
    }
    close(descriptor);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return endOf(status);
}

void ChildProcess::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

int runChildRole(int argc, char **argv) {
    const size_t length = std::strlen(kRoleOption);
    if (argc < 3 || std::strncmp(argv[1], kRoleOption, length) != 0) {
        return -1;
    }
    // A child must not outlive a test program that crashed, nor its own children hold its line.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    fcntl(kParentLine, F_SETFD, FD_CLOEXEC);
    if ("--parent=" + std::to_string(getppid()) != argv[2]) {
        return kUnknownRole;
    }
    const auto role = roles().find(argv[1] + length);
    if (role == roles().end()) {
        std::fprintf(stderr, "no child role '%s' is registered\n", argv[1] + length);
        return kUnknownRole;
    }
    return role->second(ChildArguments(argv + 3, argv + argc));
}

}  // namespace support
