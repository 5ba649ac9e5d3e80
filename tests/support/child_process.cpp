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

enum class Got { kMore, kEnd, kLate };

/* Appends what comes; a terminal whose other side is gone is at its end too. */
Got readMore(int fd, int timeoutMs, std::string *text) {
    pollfd entry{fd, POLLIN, 0};
    const int ready = poll(&entry, 1, timeoutMs);
    if (ready <= 0) {
        return ready == 0 ? Got::kLate : Got::kMore; /* or a signal came */
    }
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    text->append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    return n > 0 || (n < 0 && errno == EINTR) ? Got::kMore : Got::kEnd;
}

int patienceMs(double seconds = 10) {
    return static_cast<int>(patience(seconds).count());
}

/* Takes one line out of what was read, or reads more. */
Got takeLine(int fd, int timeoutMs, std::string *unread, std::string *line) {
    size_t end;
    while ((end = unread->find('\n')) == std::string::npos) {
        const Got got = readMore(fd, timeoutMs, unread);
        if (got != Got::kMore) {
            return got;
        }
    }
    *line = unread->substr(0, end);
    unread->erase(0, end + 1);
    return Got::kMore;
}

ChildEnd endOf(int status) {
    return WIFEXITED(status) ? exited(WEXITSTATUS(status)) : killed(WTERMSIG(status));
}

/* Opens a pipe, or a terminal whose program side is `ends[1]`. */
void openOutput(bool terminal, int (&ends)[2]) {
    if (!terminal) {
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        return;
    }
    ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(ends[0]) | unlockpt(ends[0]), 0);
    ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(ends[1], 0);
}

void closeOnce(int *fd) {
    if (*fd >= 0) {
        close(*fd);
    }
    *fd = -1;
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
    takeLine(kParentLine, -1, &unread, &line);
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

void Child::start(Words words, const Places &places) {
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const auto &[ours, childs] : places) {
        posix_spawn_file_actions_adddup2(&actions, ours, childs);
    }
    const int error = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        ADD_FAILURE() << "cannot start " << words[0] << ": " << std::strerror(error);
        pid_ = -1;
    }
    for (const auto &[ours, childs] : places) {
        close(ours);
    }
}

void Child::signal(int number) {
    if (pid_ > 0) {
        ::kill(pid_, number);
    }
}

ChildEnd Child::wait(double seconds) {
    if (pid_ <= 0) {
        ADD_FAILURE() << "there is no child to wait for";
        return killed(0);
    }
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd entry{descriptor, POLLIN, 0};
    if (descriptor >= 0 && poll(&entry, 1, patienceMs(seconds)) == 0) {
        ADD_FAILURE() << "child " << pid_ << " did not end in time";
        ::kill(pid_, SIGKILL);
    }
    close(descriptor);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return endOf(status);
}

void Child::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

/* ---- a role of the test program ---- */

ChildProcess::ChildProcess(const char *role, const ChildArguments &arguments) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "socketpair: " << std::strerror(errno);
        return;
    }
    Words words = {program_invocation_name, std::string(kRoleOption) + role,
                   "--parent=" + std::to_string(getpid())};
    words.insert(words.end(), arguments.begin(), arguments.end());
    start(words, {{ends[1], kParentLine}});
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
    std::string line;
    if (takeLine(line_, patienceMs(seconds), &unread_, &line) == Got::kLate) {
        ADD_FAILURE() << "child " << pid_ << " said nothing in time";
    }
    return line;
}

void ChildProcess::hangUp() {
    closeOnce(&line_);
}

/* ---- another program ---- */

Program::Program(const Words &words, bool onTerminal) {
    int output[2], errors[2];
    openOutput(onTerminal, output);
    openOutput(false, errors);
    start(words, {{output[1], STDOUT_FILENO}, {errors[1], STDERR_FILENO}});
    output_ = output[0];
    errors_ = errors[0];
}

Program::~Program() {
    closeOutput();
    closeOnce(&errors_);
}

std::string Program::line() {
    std::string found;
    if (takeLine(output_, patienceMs(), &text_, &found) != Got::kMore) {
        ADD_FAILURE() << "no line came, only '" << text_ << "'";
    }
    return found;
}

void Program::closeOutput() {
    closeOnce(&output_);
}

Outcome Program::finish() {
    Outcome outcome = {};
    const auto readAll = [](int fd, std::string *text) {
        Got got = Got::kMore;
        while (fd >= 0 && got == Got::kMore) {
            got = readMore(fd, patienceMs(), text);
        }
        EXPECT_NE(got, Got::kLate) << "nothing came in time";
    };
    readAll(output_, &text_);
    readAll(errors_, &outcome.errors);
    const ChildEnd end = wait();
    outcome.code = end.normal ? end.code : 256 + end.code;
    outcome.output = text_;
    return outcome;
}

void inFork(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(endOf(status), exited(0));
}

/* ---- main ---- */

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
