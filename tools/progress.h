/* A bar on standard error that shows how far a long work has come; nothing unless that is a terminal. */
#pragma once
#include <cstdint>
#include <string>

namespace tamoctl {

class ProgressBar {
  public:
    /* `shown` false: shows nothing anyway. */
    ProgressBar(std::string what, uint64_t total, bool shown = true);

    void show(uint64_t done);

    /* Leaves the bar as it stands; what is printed from now on stands below it. */
    void end();

  private:
    std::string what_;
    uint64_t total_;
    bool shown_;
    unsigned percent_ = 101; /* the one on the screen; above 100 is none */
};

}  // namespace tamoctl
