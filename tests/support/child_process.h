/* Tests across processes: the test program starts itself again in a named role.
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
#include <vector>

namespace support {

using ChildArguments = std::vector<std::string>;
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

/* A running child. It is killed, and reaped, when the object or this process ends. Started from the
 * program's main thread: the system counts the end of the starting thread as the parent's end. */
class ChildProcess {
  public:
    explicit ChildProcess(const char *role, const ChildArguments &arguments = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    pid_t pid() const { return pid_; }

    void tell(const std::string &line);

    /* The child's next line. Empty when the child ended first or, with a failed test, when the
     * deadline passed. */
    std::string hear(double seconds = 10);

    void signal(int number);

    /* Closes the child's line, for a child that ends with it. */
    void hangUp();

    /* Waits for the end. When the deadline passes the test fails and the child is killed. */
    ChildEnd wait(double seconds = 10);

    /* Kills the child and waits until it is gone. */
    void kill();

  private:
    pid_t pid_ = -1;
    int line_ = -1;
    std::string unread_;
};

/* For main: runs the role that the command line asks for and returns its exit code, or -1 when it
 * asks for none. */
int runChildRole(int argc, char **argv);

}  // namespace support
