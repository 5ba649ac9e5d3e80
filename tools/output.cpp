/* Texts, tables and JSON: see output.h. */
#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

/* Terminal cells of a printable text, at one cell a character. */
size_t cells(const std::string &text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
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

/* Prints what the JSON library made, and releases it. */
void printText(char *made) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(made, cJSON_free);
    if (text == nullptr) {
        fputs("tamoctl: no memory for the JSON text: ask for fewer keys\n", stderr);
        exit(kFailed);
    }
    printf("%s\n", text.get());
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

void Table::add(std::vector<std::string> row) {
    for (std::string &field : row) {
        field = printable(field);
    }
    rows_.push_back(std::move(row));
}

void Table::print() const {
    if (onTerminal()) {
        printAligned();
        return;
    }
    for (const auto &row : rows_) {
        for (size_t i = 0; i < row.size(); ++i) {
            printf("%s%c", row[i].c_str(), i + 1 < row.size() ? '\t' : '\n');
        }
    }
}

void Table::printAligned() const {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns_.size(); ++i) {
        size_t width = strlen(columns_[i].title);
        for (const auto &row : rows_) {
            width = std::max(width, cells(row[i]));
        }
        widths.push_back(width);
    }
    auto printRow = [&](auto &&field) {
        for (size_t i = 0; i < columns_.size(); ++i) {
            std::string text = field(i);
            std::string gap(widths[i] - cells(text), ' ');
            bool last = i + 1 == columns_.size();
            if (columns_[i].number) {
                printf("%s%s", gap.c_str(), text.c_str());
            } else {
                printf("%s%s", text.c_str(), last ? "" : gap.c_str());
            }
            fputs(last ? "\n" : "  ", stdout);
        }
    };
    printRow([&](size_t i) { return std::string(columns_[i].title); });
    for (const auto &row : rows_) {
        printRow([&](size_t i) { return row[i]; });
    }
}

void addText(cJSON *object, const char *key, std::string_view text) {
    cJSON_AddStringToObject(object, validUtf8(key).c_str(), validUtf8(text).c_str());
}

void addNumber(cJSON *object, const char *key, uint64_t number) {
    // As digits: a double does not hold every 64-bit number.
    cJSON_AddRawToObject(object, key, std::to_string(number).c_str());
}

void printJson(const Json &json) {
    printText(cJSON_Print(json.get()));
}

void printJsonLine(const Json &json) {
    printText(cJSON_PrintUnformatted(json.get()));
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
