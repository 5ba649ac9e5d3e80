/* A log file that its writers rotate: NAME is the current one, NAME.1 the one before, and so on. */
#pragma once
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/descriptor.h"

namespace tamoctl {

using tamo::Descriptor;

using LineFunction = std::function<void(std::string_view line)>;
using LineTest = std::function<bool(std::string_view line)>;

/* Reads the log's lines in their order, from one file into the next. Lines come without their line
 * feed; one that its writer has not ended yet is kept back. */
class LogFile {
  public:
    /* `base` is the current file's native path. */
    explicit LogFile(std::string base) : base_(std::move(base)) {}

    /* Whether there is a file to read. */
    bool open();

    /* The last `count` lines that `wanted` takes, older files included; reading goes on behind
     * them. */
    std::vector<std::string> tail(size_t count, const LineTest &wanted);

    /* Hands out every line that was written since. A file that was rotated away is read to its end
     * first, and once more later for a writer that still had it open. */
    void readOn(const LineFunction &line);

  private:
    struct Source {
        Descriptor file;
        std::string rest; /* the beginning of a line without its end */
    };

    std::string path(size_t index) const;
    void drain(Source &source, const LineFunction &line) const;
    size_t findName(ino_t held, size_t *oldest) const;
    bool areFree(size_t first, size_t end) const;
    Descriptor openNext() const;

    std::string base_;
    Source previous_, current_;
};

}  // namespace tamoctl
