/* See program.h. */
#include "program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

Outcome tamoctl(Words words, bool onTerminal) {
    words.insert(words.begin(), TAMOCTL);
    return Program(words, onTerminal).finish();
}

Outcome shell(const std::string &line) {
    return Program({"sh", "-c", line}).finish();
}

size_t lineCount(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string fileText(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void tryAll(const std::vector<Case> &cases, const Words &before) {
    for (const auto &[words, code, text] : cases) {
        Words all = before;
        all.insert(all.end(), words.begin(), words.end());
        const Outcome outcome = tamoctl(all);
        SCOPED_TRACE(testing::PrintToString(words) + outcome.output + outcome.errors);
        EXPECT_EQ(outcome.code, code);
        EXPECT_NE((code == 0 ? outcome.output : outcome.errors).find(text), std::string::npos)
            << text;
        EXPECT_EQ(lineCount(outcome.errors), code == 0 ? 0U : 1U);
        EXPECT_TRUE(code != 2 || outcome.output.empty());
    }
}
