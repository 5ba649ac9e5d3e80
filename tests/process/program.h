/* The tool under test, and what tests of it share. */
#pragma once
#include <string>
#include <vector>

#include "tests/support/child_process.h"

using support::Outcome;
using support::Program;
using support::Words;

/* Runs tamoctl to its end. */
Outcome tamoctl(Words words, bool onTerminal = false);

/* What a shell's command line prints and exits with. */
Outcome shell(const std::string &line);

size_t lineCount(const std::string &text);

std::string fileText(const std::string &name);

/* A command line, what it exits with, and a text that it must print: as output when it succeeds, in one
 * line on standard error otherwise. */
struct Case {
    Words words;
    int code;
    std::string text;
};

/* `before` stands before the words of each. */
void tryAll(const std::vector<Case> &cases, const Words &before = {});
