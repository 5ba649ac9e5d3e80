/* See scratch_root.h. The watcher is a forked process that waits for the end of a pipe whose other
 * end only the test program holds: the end comes with any death of the program, also by SIGKILL. */
#include "scratch_root.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace support {
namespace {

constexpr char kRootVariable[] = "TAMO_DEVICE_ROOT";

pid_t watcher = -1;
int lifeline = -1;

[[noreturn]] void giveUp(const char *what) {
    std::perror(what);
    std::exit(2);
}

std::string makeDirectory() {
    const char *base = std::getenv("TMPDIR");
    std::string path =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tamo-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        giveUp(("cannot create a directory " + path).c_str());
    }
    return path;
}

void removeDirectory(const std::string &path) {
    // A test may have taken permissions away; give them back where we can.
    std::error_code ignored;
    chmod(path.c_str(), 0700);
    std::filesystem::remove_all(path, ignored);
}

[[noreturn]] void watch(int end, const std::string &root) {
    // Its own session: an interrupt from the terminal must not end it before its work.
    setsid();
    // The one who reads the program's output must not wait for the watcher.
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd <= 2; ++fd) {
        dup2(null, fd);
    }
    char byte;
    while (read(end, &byte, 1) > 0) {
    }
    removeDirectory(root);
    _exit(0);
}

}  // namespace

void beginScratchRoot() {
    const std::string root = makeDirectory();
    setenv(kRootVariable, root.c_str(), 1);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        giveUp("pipe2");
    }
    watcher = fork();
    if (watcher < 0) {
        giveUp("fork");
    }
    if (watcher == 0) {
        close(ends[1]);
        watch(ends[0], root);
    }
    close(ends[0]);
    lifeline = ends[1];
}

void endScratchRoot() {
    close(lifeline);
    waitpid(watcher, nullptr, 0);
}

std::string scratchRoot() {
    const char *root = std::getenv(kRootVariable);
    return root != nullptr ? root : "";
}

ScratchDirectory::ScratchDirectory() : path_(makeDirectory()) {}

ScratchDirectory::~ScratchDirectory() {
    removeDirectory(path_);
}

}  // namespace support
