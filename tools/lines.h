/* Lines of output: how many there are, and what ends them early.
 *
 * The main thread prints. Where a command may have to be ended from outside, a second thread waits
 * for the time-out, for a signal, and for the reader of standard output to go away; it ends the
 * process between two lines. */
#pragma once
#include <string_view>

#include "tamoctl.h"

namespace tamoctl {

enum class Lines {
    finite, /* a listing: what it could not show in its time is missing */
    endless /* it ends by its count, its time or a signal */
};

/* Reads --count and --timeout, and begins to wait for what ends the output. */
void beginLines(const Command &command, const Arguments &arguments, Lines lines);

/* Prints a line, without its end; false when no other is wanted. */
bool putLine(std::string_view line);

/* The exit code after the last line. */
int endLines();

}  // namespace tamoctl
