/* The names that are most like a mistyped one. */
#include <strings.h>

#include <algorithm>
#include <cctype>

#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr size_t kMostNames = 3;

char lower(char c) {
    return static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

/* Characters to insert, remove, replace or swap with their neighbours, in any letter case. */
size_t distance(std::string_view one, std::string_view other) {
    std::vector<size_t> before(other.size() + 1), above(other.size() + 1), row(other.size() + 1);
    for (size_t at = 0; at <= other.size(); at++) {
        above[at] = at;
    }
    for (size_t i = 1; i <= one.size(); i++) {
        row[0] = i;
        for (size_t j = 1; j <= other.size(); j++) {
            const bool same = lower(one[i - 1]) == lower(other[j - 1]);
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && lower(one[i - 1]) == lower(other[j - 2]) &&
                lower(one[i - 2]) == lower(other[j - 1])) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before = above;
        above = row;
    }
    return above[other.size()];
}

/* Whether the word is the end of the name behind a dot: "gain" of "Conf.Audio.gain". */
bool isLastPart(std::string_view word, std::string_view name) {
    return name.size() > word.size() && name[name.size() - word.size() - 1] == '.' &&
           strncasecmp(name.data() + name.size() - word.size(), word.data(), word.size()) == 0;
}

}  // namespace

std::string suggestion(std::string_view word, const std::vector<std::string> &candidates) {
    const size_t most = std::max<size_t>(1, std::min<size_t>(word.size() / 3, 4));
    std::vector<std::pair<size_t, std::string>> near;
    for (const std::string &name : candidates) {
        const bool comparable =
            name.size() <= word.size() + most && word.size() <= name.size() + most;
        const size_t far = isLastPart(word, name) ? 1
                           : comparable           ? distance(word, name)
                                                  : SIZE_MAX;
        if (far <= most && far != 0) {
            near.emplace_back(far, name);
        }
    }
    std::sort(near.begin(), near.end());
    near.erase(std::unique(near.begin(), near.end()), near.end());
    if (near.empty() || word.empty()) {
        return "";
    }
    // The nearest, and those that are as near.
    size_t count = 1;
    while (count < std::min(near.size(), kMostNames) && near[count].first == near[0].first) {
        count++;
    }
    std::string text = "; did you mean ";
    for (size_t at = 0; at < count; at++) {
        text += at == 0 ? "" : at + 1 == count ? " or " : ", ";
        text += "'" + near[at].second + "'";
    }
    return text + "?";
}

}  // namespace tamoctl
