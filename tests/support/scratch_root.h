/* The private device root of a test program: a fresh directory that TAMO_DEVICE_ROOT names. */
#pragma once
#include <string>

namespace support {

/* Creates the root (mode 0700, below $TMPDIR or /tmp) and names it in the environment. Called once, by
 * main. */
void beginScratchRoot();

/* Removes the root. A program that is killed leaves it behind. */
void endScratchRoot();

/* The root that this process and its children use. */
std::string scratchRoot();

/* A fresh directory of mode 0700 below $TMPDIR or /tmp, removed with its contents by the
 * destructor. */
class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace support
