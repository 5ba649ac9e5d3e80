/* See program.h. */
#include "program.h"

#include <algorithm>

Outcome tamoctl(Words words, bool onTerminal) {
    words.insert(words.begin(), TAMOCTL);
    return Program(words, onTerminal).finish();
}

size_t lineCount(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}
