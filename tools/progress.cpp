/* See progress.h. Debian has no C or C++ library for a bar; this is less than drawing one with curses. */
#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace tamoctl {

ProgressBar::ProgressBar(std::string what, uint64_t total, bool shown)
    : what_(std::move(what)), total_(total), shown_(shown && isatty(STDERR_FILENO) == 1) {}

void ProgressBar::show(uint64_t done) {
    constexpr unsigned kCells = 30;
    const auto percent = static_cast<unsigned>(total_ == 0 ? 100 : done * 100 / total_);
    if (!shown_ || percent == percent_) {
        return;
    }
    percent_ = percent;
    const std::string bar(percent * kCells / 100, '#');
    // The cursor goes back at once: a message that comes between takes the bar's line.
    fprintf(stderr, "%s [%-*s] %3u%%\r", what_.c_str(), int{kCells}, bar.c_str(), percent);
    fflush(stderr);
}

void ProgressBar::end() {
    if (percent_ <= 100) {
        fputc('\n', stderr);
    }
    shown_ = false;
}

}  // namespace tamoctl
