/* The tool under test. */
#pragma once
#include "tests/support/child_process.h"

using support::Outcome;
using support::Program;
using support::Words;

/* Runs tamoctl to its end. */
Outcome tamoctl(Words words, bool onTerminal = false);

size_t lineCount(const std::string &text);
