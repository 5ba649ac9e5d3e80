/* Texts as tamoctl prints them: what a terminal can show safely, and JSON. */
#pragma once
#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <string_view>

namespace tamoctl {

/* Whether standard output is a terminal. */
bool onTerminal();

/* Whether to colour: on a terminal that can, unless NO_COLOR is set. */
bool wantsColor();

/* The columns of the terminal; very many when it does not say. */
size_t terminalWidth();

/* The text with control characters and bytes that are not UTF-8 written as \n, \t, \xNN. */
std::string printable(std::string_view text);

/* The length of the UTF-8 character at the start of a text that is not empty; 0 when there is none. */
size_t characterLength(std::string_view text);

bool isUtf8(std::string_view text);

/* The cells of a terminal that a printable text takes. */
size_t displayWidth(std::string_view text);

/* The beginning of a text that is wider than `width`, with a mark at its end. */
std::string cutToWidth(std::string_view text, size_t width);

/* Prints a value that stands alone on its line: escaped on a terminal, as it is in a pipe. */
void printValue(std::string_view value);

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

/* Adds a text, with bytes that are not UTF-8 replaced; a number. */
void addText(cJSON *object, const char *key, std::string_view text);
void addNumber(cJSON *object, const char *key, uint64_t number);

/* The object as one line. */
std::string jsonLine(const Json &json);
void printJsonLine(const Json &json);

/* A time in microseconds since 1970: local as in the log, or universal as JSON has it. */
std::string timeText(int64_t timeUs, bool universal);

/* Flushes standard output and returns `code`, or the failure code when the output could not be
 * written; a reader that went away is not worth a message. */
int finishOutput(int code);

}  // namespace tamoctl
