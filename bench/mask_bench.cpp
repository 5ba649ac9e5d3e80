/* How the cost of masking grows with the text: nanoseconds per byte, which must stay what they are,
 * however often the address, or the key, occurs. */
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/take_turns.h"
#include "include/conf_mask_keyword.h"
#include "platform/tamo_os_mem.h"

namespace {

constexpr char kAddress[] = "192.168.1.10";
constexpr size_t kSizes[] = {1000, 10000, 100000, 1000000};
constexpr size_t kTurns = 60;
constexpr double kMostGrowth = 1.5;

std::string repeat(const std::string &piece, size_t size) {
    std::string text;
    while (text.size() < size) {
        text += piece;
    }
    return text;
}

void replaceAll(const std::string &text) {
    char *masked = nullptr;
    uint32_t length = 0;
    bench::require(ConfReplaceIPAddrStr(text.c_str(), &masked, &length) == 0,
                   "ConfReplaceIPAddrStr");
    OSMemTypeFreeMon(masked, 0, 0, __LINE__, "mask_bench");
}

/* Prints a row, and how much more the largest text costs per byte than the smallest. */
template <typename Mask>
void measure(const char *name, const std::string &piece, Mask mask) {
    std::vector<bench::Row> rows;
    for (const size_t size : kSizes) {
        rows.push_back({name, 0, [text = repeat(piece, size), mask]() mutable { mask(text); }});
    }
    for (size_t turn = 0; turn < kTurns; turn++) {
        for (size_t at = 0; at < rows.size(); at++) {
            bench::takeTurn(rows[at], {.title = name, .runs = kSizes[3] / kSizes[at]});
        }
    }
    std::printf("  %-52s", name);
    std::vector<double> perByte;
    for (size_t at = 0; at < rows.size(); at++) {
        perByte.push_back(bench::percentile(rows[at].nanoseconds, 0.5) /
                          static_cast<double>(kSizes[at]));
        std::printf(" %8.3f", perByte.back());
    }
    std::printf("\n");
    bench::figure(std::string(name) + ", a byte of 1 MB against one of 1 KB",
                  perByte.back() / perByte.front(), kMostGrowth);
}

}  // namespace

int main() {
    ConfFilterSetIPStr(kAddress);
    std::printf("ns per byte %42s %8s %8s %8s %8s\n", "bytes:", "1k", "10k", "100k", "1M");
    measure("ConfReplaceIPAddrStr, an address in 24 bytes", "peer 192.168.1.10 lost; ", replaceAll);
    const auto maskValues = [](const char *key, const char *endMark) {
        return [=](std::string &text) { ConfFilterNonSecurityWordEx(text.data(), key, endMark); };
    };
    measure("ConfFilterNonSecurityWordEx, \"tel:\", no end mark", "To: <tel:5550123\r\n",
            maskValues("tel:", ">"));
    /* Parts that are masked again and again: the key survives in them. */
    measure("ConfFilterNonSecurityWordEx, a line of lists", "-eidabcdij;",
            maskValues("-eid", "ij"));
    return bench::finish();
}
