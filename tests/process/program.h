/* Programs under test: started with their output in a pipe, or on a terminal, of the test's. */
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

using Words = std::vector<std::string>;

struct Outcome {
    int code; /* exit code, or 256 and the signal */
    std::string output, errors;
};

/* A running program; killed when the object ends before it has. */
class Program {
  public:
    explicit Program(const Words &words, bool onTerminal = false);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    /* The next line of its output; empty, with a failed test, when none comes in time. */
    std::string line();

    void signal(int number);

    /* Goes away as a reader. */
    void closeOutput();

    /* Reads what it still writes and waits for its end. */
    Outcome finish();

  private:
    pid_t pid_ = -1;
    int output_ = -1, errors_ = -1;
    std::string text_;
};

/* Runs tamoctl to its end. */
Outcome tamoctl(Words words, bool onTerminal = false);

size_t lineCount(const std::string &text);
