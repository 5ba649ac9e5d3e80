/* Processes of a test: the test program itself again in a named role, any other program with its output
 * in the test's hand, and a fork of the test.
 *
 *     const support::ChildRole server("server", [](const support::ChildArguments &arguments) {
 *         ... open a queue ...
 *         support::tellParent("ready");
 *         ... until support::hearParent() == "stop" ...
 *         return 0;
 *     });
 *
 *     TEST(Queue, ...) {
 *         support::ChildProcess child("server", {"queueName"});
 *         ASSERT_EQ(child.hear(), "ready");
 *         ...
 *         child.tell("stop");
 *         EXPECT_EQ(child.wait(), support::exited(0));
 *     }
 *
 * Parent and child talk in lines over a socket pair. Each wait has a deadline (deadline.h) and
 * fails the test when it passes. The child uses its parent's device root. */
#pragma once
#include <sys/types.h>

#include <functional>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace support {

using Words = std::vector<std::string>;
using ChildArguments = Words;
using ChildFunction = std::function<int(const ChildArguments &)>;

/* Registers what a child does in the role `name`; a constant at namespace level. The function's
 * result is the child's exit code. */
class ChildRole {
  public:
    ChildRole(const char *name, ChildFunction function);
};

/* Sends one line from a child to its parent. */
void tellParent(const std::string &line);

/* The parent's next line, waited for without a deadline; empty when the parent closed the line. */
std::string hearParent();

/* How a process ended. */
struct ChildEnd {
    bool normal;
    int code; /* exit code, or the signal that ended it */
    bool operator==(const ChildEnd &) const = default;
};
std::ostream &operator<<(std::ostream &out, const ChildEnd &end);
ChildEnd exited(int code);
ChildEnd killed(int signal);

/* A running process. It is killed, and reaped, when the object or this process ends. Started from the
 * program's main thread: the system counts the end of the starting thread as the parent's end. */
class Child {
  public:
    Child() = default;
    ~Child() { kill(); }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }

    void signal(int number);

    /* Waits for the end. When the deadline passes the test fails and the child is killed. */
    ChildEnd wait(double seconds = 10);

    /* Kills the child and waits until it is gone. */
    void kill();

  protected:
    using Places =
        std::vector<std::pair<int, int>>;          /* descriptors: of this process, of the child */
    void start(Words words, const Places &places); /* found as the shell finds it */

    pid_t pid_ = -1;
};

/* The test program in one of its roles. */
class ChildProcess : public Child {
  public:
    explicit ChildProcess(const char *role, const ChildArguments &arguments = {});
    ~ChildProcess();

    void tell(const std::string &line);

    /* The child's next line. Empty when the child ended first or, with a failed test, when the
     * deadline passed. */
    std::string hear(double seconds = 10);

    /* Closes the child's line, for a child that ends with it. */
    void hangUp();

  private:
    int line_ = -1;
    std::string unread_;
};

struct Outcome {
    int code; /* exit code, or 256 and the signal */
    std::string output, errors;
};

/* A program, found as the shell finds it, with its output in a pipe, or on a terminal, of the test's. */
class Program : public Child {
  public:
    explicit Program(const Words &words, bool onTerminal = false);
    ~Program();

    /* The next line of its output; empty, with a failed test, when none comes in time. */
    std::string line();

    /* Goes away as a reader. */
    void closeOutput();

    /* Reads what it still writes and waits for its end. */
    Outcome finish();

  private:
    int output_ = -1, errors_ = -1;
    std::string text_;
};

/* Runs `body` in a fork of this process; its failed checks are failures of the test. */
void inFork(const std::function<void()> &body);

/* For main: runs the role that the command line asks for and returns its exit code, or -1 when it
 * asks for none. */
int runChildRole(int argc, char **argv);

}  // namespace support
