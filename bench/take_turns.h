/* Rows of work side by side. They take turns in many short rounds, and a ratio is the median of the
 * rounds' own ratios, so that what the machine does meanwhile meets all rows alike. */
#pragma once
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <vector>

namespace bench {

/* `limit` is what the row's ratio to the first row may be; 0: any. */
struct Row {
    const char *name;
    double limit;
    std::function<void()> run;
    std::vector<double> nanoseconds = {};
};

constexpr size_t kRounds = 400;
constexpr size_t kSamples = 5; /* of each row in a round */

inline double percentile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
}

/* The mean of `runs` runs, after one that only warms up. */
inline void takeTurn(Row &row, size_t runs) {
    row.run();
    for (size_t sample = 0; sample < kSamples; sample++) {
        const auto begin = std::chrono::steady_clock::now();
        for (size_t run = 0; run < runs; run++) {
            row.run();
        }
        const std::chrono::duration<double, std::nano> took =
            std::chrono::steady_clock::now() - begin;
        row.nanoseconds.push_back(took.count() / static_cast<double>(runs));
    }
}

inline double ratio(const Row &row, const Row &first) {
    std::vector<double> ratios;
    for (size_t at = 0; at < row.nanoseconds.size(); at += kSamples) {
        const auto median = [at](const Row &of) {
            const auto begin = of.nanoseconds.begin() + static_cast<std::ptrdiff_t>(at);
            return percentile({begin, begin + static_cast<std::ptrdiff_t>(kSamples)}, 0.5);
        };
        ratios.push_back(median(row) / median(first));
    }
    return percentile(ratios, 0.5);
}

/* Measures and prints the rows; false when one is above its limit. */
inline bool compare(const char *title, std::vector<Row> rows, size_t runs,
                    size_t rounds = kRounds) {
    for (size_t round = 0; round < rounds; round++) {
        for (size_t turn = 0; turn < rows.size(); turn++) {
            takeTurn(rows[(round + turn) % rows.size()], runs);
        }
    }
    bool within = true;
    std::printf("%s\n  %-44s %12s %12s %7s\n", title, "", "median ns", "p99 ns", "ratio");
    for (const Row &row : rows) {
        const double times = ratio(row, rows[0]);
        std::printf("  %-44s %12.0f %12.0f %7.3f", row.name, percentile(row.nanoseconds, 0.5),
                    percentile(row.nanoseconds, 0.99), times);
        if (row.limit > 0) {
            std::printf("  limit %.2f: %s", row.limit, times <= row.limit ? "held" : "MISSED");
            within = within && times <= row.limit;
        }
        std::printf("\n");
    }
    return within;
}

}  // namespace bench
