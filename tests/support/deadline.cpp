/* See deadline.h. */
#include "deadline.h"

#include <cstdlib>
#include <fstream>
#include <string>

namespace support {
namespace {

#ifdef CONF_SANITIZED
constexpr double kBuildSlowdown = 5;
#else
constexpr double kBuildSlowdown = 1;
#endif

bool beingDebugged() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "TracerPid:") {
            return status >> word && word != "0";
        }
    }
    return false;
}

}  // namespace

double slowdown() {
    const char *text = std::getenv("TEST_SLOWDOWN");
    const double factor = text != nullptr ? std::atof(text) : 0;
    return factor > 0 ? factor : kBuildSlowdown;
}

std::chrono::milliseconds patience(double seconds) {
    using namespace std::chrono;
    if (beingDebugged()) {
        return hours(24);
    }
    return milliseconds(static_cast<long long>(seconds * 1000 * slowdown()));
}

}  // namespace support
