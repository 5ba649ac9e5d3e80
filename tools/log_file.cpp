/* Rotated log files: see log_file.h.
 *
 * Rotation renames, so a file is known by its inode: what this process holds open is looked for
 * among the names, and the file one name nearer to the current one is the next to read. That finds
 * every file however often the writers rotated in between, as long as they keep it. */
#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace tamoctl {

namespace {

constexpr size_t kReadSize = 64 * 1024;
constexpr size_t kMostFiles = 1000;

/* The inode of a name, 0 when there is none. */
ino_t inodeOf(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

ino_t inodeOf(const Descriptor &file) {
    struct stat status;
    return fstat(file.get(), &status) == 0 ? status.st_ino : 0;
}

Descriptor openFile(const std::string &path) {
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

std::string readToEnd(const Descriptor &file) {
    std::string text;
    for (;;) {
        const size_t length = text.size();
        text.resize(length + kReadSize);
        const ssize_t n = read(file.get(), text.data() + length, kReadSize);
        text.resize(length + (n > 0 ? static_cast<size_t>(n) : 0));
        if (n <= 0) {
            return text;
        }
    }
}

/* Puts the last lines of a text in front of `lines` until it has `count`. */
void takeLastLines(std::string_view text, size_t count, const LineTest &wanted,
                   std::vector<std::string> *newestFirst) {
    while (!text.empty() && newestFirst->size() < count) {
        text.remove_suffix(1);  // the line feed
        const size_t before = text.rfind('\n');
        const size_t start = before == std::string_view::npos ? 0 : before + 1;
        if (wanted(text.substr(start))) {
            newestFirst->emplace_back(text.substr(start));
        }
        text = text.substr(0, start);
    }
}

}  // namespace

std::string LogFile::path(size_t index) const {
    return index == 0 ? base_ : base_ + "." + std::to_string(index);
}

bool LogFile::open() {
    current_.file = openFile(base_);
    return current_.file.isOpen();
}

std::vector<std::string> LogFile::tail(size_t count, const LineTest &wanted) {
    std::vector<std::string> lines;
    std::string text = readToEnd(current_.file);
    const size_t end = text.rfind('\n') + 1;  // 0 when there is no line feed
    current_.rest = text.substr(end);
    takeLastLines(std::string_view(text).substr(0, end), count, wanted, &lines);

    ino_t newer = inodeOf(current_.file);
    for (size_t index = 1; lines.size() < count && index < kMostFiles; ++index) {
        const Descriptor file = openFile(path(index));
        // A rotation that was killed left no file here, or one since the last step gave the same file
        // another name.
        if (!file.isOpen() || inodeOf(file) == newer) {
            continue;
        }
        newer = inodeOf(file);
        text = readToEnd(file);
        takeLastLines(std::string_view(text).substr(0, text.rfind('\n') + 1), count, wanted,
                      &lines);
    }
    std::reverse(lines.begin(), lines.end());
    return lines;
}

void LogFile::drain(Source &source, const LineFunction &line) const {
    struct stat status;
    if (!source.file.isOpen()) {
        return;
    }
    // Emptied in place by somebody: what comes now begins at the start.
    if (fstat(source.file.get(), &status) == 0 &&
        status.st_size < lseek(source.file.get(), 0, SEEK_CUR)) {
        lseek(source.file.get(), 0, SEEK_SET);
        source.rest.clear();
    }
    source.rest += readToEnd(source.file);
    size_t start = 0;
    for (size_t end; (end = source.rest.find('\n', start)) != std::string::npos; start = end + 1) {
        line(std::string_view(source.rest).substr(start, end - start));
    }
    source.rest.erase(0, start);
}

/* The name of the file with the inode `held`, else kMostFiles; `*oldest` is the last name in use. A
 * rotation that goes on, or that was killed, leaves names free between others. */
size_t LogFile::findName(ino_t held, size_t *oldest) const {
    *oldest = 0;
    for (size_t index = 0; index < kMostFiles; ++index) {
        const ino_t inode = inodeOf(path(index));
        if (inode == held) {
            return index;
        }
        if (inode != 0) {
            *oldest = index;
        }
    }
    return kMostFiles;
}

/* Whether no file has one of these names. */
bool LogFile::areFree(size_t first, size_t end) const {
    while (first < end && inodeOf(path(first)) == 0) {
        ++first;
    }
    return first >= end;
}

Descriptor LogFile::openNext() const {
    const ino_t held = inodeOf(current_.file);
    for (;;) {
        size_t oldest = 0;
        const size_t index = findName(held, &oldest);
        if (index == 0) {
            return Descriptor();
        }
        // Rotated out of existence: the oldest that is left is the next.
        const bool found = index != kMostFiles;
        const size_t end = found ? index : oldest + 1;
        size_t nearest = end;
        Descriptor next;
        while (!next.isOpen() && nearest > 0) {
            next = openFile(path(--nearest));
        }
        // Did a rotation move files while they were looked at?
        const bool stays = found ? inodeOf(path(index)) == held : inodeOf(path(end)) == 0;
        if (stays && areFree(nearest + 1, end)) {
            return next;
        }
    }
}

void LogFile::readOn(const LineFunction &line) {
    drain(previous_, line);
    if (!current_.file.isOpen() && !open()) {
        return;
    }
    for (;;) {
        drain(current_, line);
        Descriptor next = openNext();
        if (!next.isOpen()) {
            return;
        }
        // The last writes before the rotation.
        drain(current_, line);
        previous_ = std::move(current_);
        current_ = Source{std::move(next), ""};
    }
}

}  // namespace tamoctl
