/* See program.h. */
#include "program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/deadline.h"

namespace {

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

/* False at the end of the output, and when the deadline passes. */
bool readMore(int fd, std::string *text) {
    pollfd polled = {fd, POLLIN, 0};
    if (poll(&polled, 1, static_cast<int>(support::patience().count())) != 1) {
        ADD_FAILURE() << "nothing came in time";
        return false;
    }
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    text->append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    return n > 0;
}

}  // namespace

Program::Program(const Words &words, bool onTerminal) {
    int output[2], errors[2];
    openOutput(onTerminal, output);
    openOutput(false, errors);
    std::vector<char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    EXPECT_EQ(posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    close(errors[1]);
    output_ = output[0];
    errors_ = errors[0];
}

Program::~Program() {
    closeOutput();
    close(errors_);
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::string Program::line() {
    size_t end;
    while ((end = text_.find('\n')) == std::string::npos) {
        if (!readMore(output_, &text_)) {
            ADD_FAILURE() << "no line came, only '" << text_ << "'";
            return "";
        }
    }
    const std::string found = text_.substr(0, end);
    text_.erase(0, end + 1);
    return found;
}

void Program::signal(int number) {
    EXPECT_EQ(kill(pid_, number), 0);
}

void Program::closeOutput() {
    if (output_ >= 0) {
        close(output_);
    }
    output_ = -1;
}

Outcome Program::finish() {
    Outcome outcome = {};
    while (output_ >= 0 && readMore(output_, &text_)) {
    }
    while (readMore(errors_, &outcome.errors)) {
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
    outcome.output = text_;
    return outcome;
}

Outcome tamoctl(Words words, bool onTerminal) {
    words.insert(words.begin(), TAMOCTL);
    return Program(words, onTerminal).finish();
}

size_t lineCount(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}
