/* Texts and JSON: see output.h. */
#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>

#include "tamoctl.h"

namespace tamoctl {

namespace {

bool isControl(std::string_view character) {
    unsigned first = static_cast<unsigned char>(character[0]);
    unsigned second = character.size() == 2 ? static_cast<unsigned char>(character[1]) : 0;
    return first < 0x20 || first == 0x7F || (first == 0xC2 && second < 0xA0);
}

std::string escaped(std::string_view bytes) {
    if (bytes == "\n") {
        return "\\n";
    }
    if (bytes == "\t") {
        return "\\t";
    }
    std::string result;
    for (char c : bytes) {
        char code[8];
        snprintf(code, sizeof(code), "\\x%02x", static_cast<unsigned char>(c));
        result += code;
    }
    return result;
}

/* The cells that one character takes. */
size_t cellsOf(std::string_view character) {
    wchar_t wide = 0;
    mbstate_t state = {};
    const size_t length = mbrtowc(&wide, character.data(), character.size(), &state);
    const int width = length == character.size() ? wcwidth(wide) : 1;
    return width < 0 ? 1 : static_cast<size_t>(width);
}

std::string validUtf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        size_t length = characterLength(text);
        if (length > 0) {
            result += text.substr(0, length);
        } else {
            result += "\xEF\xBF\xBD";
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

}  // namespace

size_t characterLength(std::string_view text) {
    auto byte = [&](size_t i) -> unsigned { return static_cast<unsigned char>(text[i]); };
    unsigned first = byte(0);
    size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Forms that are longer than needed, surrogates, and what lies above U+10FFFF.
    if ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
        (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F)) {
        return 0;
    }
    return length;
}

bool onTerminal() {
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    return terminal;
}

bool wantsColor() {
    const char *noColor = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    return onTerminal() && (noColor == nullptr || noColor[0] == 0) &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

size_t terminalWidth() {
    constexpr size_t kUnlimited = 10000;
    winsize size = {};
    const char *columns = getenv("COLUMNS");
    const int named = columns == nullptr ? 0 : atoi(columns);
    if (named > 0) {
        return static_cast<size_t>(named);
    }
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return known ? size.ws_col : kUnlimited;
}

bool isUtf8(std::string_view text) {
    for (size_t length; !text.empty(); text.remove_prefix(length)) {
        length = characterLength(text);
        if (length == 0) {
            return false;
        }
    }
    return true;
}

size_t displayWidth(std::string_view text) {
    size_t width = 0;
    for (size_t length; !text.empty(); text.remove_prefix(length)) {
        length = std::max<size_t>(characterLength(text), 1);
        width += cellsOf(text.substr(0, length));
    }
    return width;
}

std::string cutToWidth(std::string_view text, size_t width) {
    std::string cut;
    size_t used = 0;
    for (size_t length; !text.empty(); text.remove_prefix(length)) {
        length = std::max<size_t>(characterLength(text), 1);
        used += cellsOf(text.substr(0, length));
        if (used + 1 > width) {
            break;
        }
        cut += text.substr(0, length);
    }
    return width == 0 ? "" : cut + "\xE2\x80\xA6";
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        size_t length = characterLength(text);
        std::string_view character = text.substr(0, std::max<size_t>(length, 1));
        if (length == 0 || isControl(character)) {
            result += escaped(character);
        } else {
            result += character;
        }
        text.remove_prefix(character.size());
    }
    return result;
}

void printValue(std::string_view value) {
    std::string text = onTerminal() ? printable(value) : std::string(value);
    fwrite(text.data(), 1, text.size(), stdout);
    putchar('\n');
}

void addText(cJSON *object, const char *key, std::string_view text) {
    cJSON_AddStringToObject(object, validUtf8(key).c_str(), validUtf8(text).c_str());
}

void addNumber(cJSON *object, const char *key, uint64_t number) {
    // As digits: a double does not hold every 64-bit number.
    cJSON_AddRawToObject(object, key, std::to_string(number).c_str());
}

std::string jsonLine(const Json &json) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json.get()),
                                                            cJSON_free);
    if (text == nullptr) {
        fputs("tamoctl: out of memory for the JSON text\n", stderr);
        exit(kFailed);
    }
    return text.get();
}

void printJsonLine(const Json &json) {
    printf("%s\n", jsonLine(json).c_str());
}

std::string timeText(int64_t timeUs, bool universal) {
    const time_t seconds = static_cast<time_t>(timeUs / 1000000);
    tm parts = {};
    char text[64];
    universal ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    const size_t length =
        strftime(text, sizeof(text), universal ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    snprintf(text + length, sizeof(text) - length, ".%06d%s", static_cast<int>(timeUs % 1000000),
             universal ? "Z" : "");
    return text;
}

int finishOutput(int code) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return code;
    }
    if (errno != EPIPE) {
        fprintf(stderr, "tamoctl: cannot write the output: %s\n", strerror(errno));
    }
    return kFailed;
}

}  // namespace tamoctl
