/* What tamoctl prints: texts that a terminal can show safely, tables and JSON.
 *
 * A terminal gets aligned tables with a title line. A pipe gets one row a line with tabs between
 * the fields and no titles. Control characters are escaped in both, so that a row stays a row. */
#pragma once
#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tamoctl {

/* Whether standard output is a terminal. */
bool onTerminal();

/* The text with control characters and bytes that are no UTF-8 written as \n, \t, \xNN. */
std::string printable(std::string_view text);

/* The length of the UTF-8 character at the start of a text that is not empty, 0 when it is none. */
size_t characterLength(std::string_view text);

/* Prints a value that stands alone on its line: escaped on a terminal, as it is in a pipe. */
void printValue(std::string_view value);

struct Column {
    const char *title;
    bool number; /* aligned to the right */
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    void add(std::vector<std::string> row);
    bool empty() const { return rows_.empty(); }
    void print() const;

  private:
    void printAligned() const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

struct JsonDelete {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

/* Adds a text, with bytes that are no UTF-8 replaced; a number; a null. */
void addText(cJSON *object, const char *key, std::string_view text);
void addNumber(cJSON *object, const char *key, uint64_t number);

void printJson(const Json &json);
/* The same on one line. */
void printJsonLine(const Json &json);

/* Flushes standard output and returns `code`, or the failure code when the output could not be
 * written; a reader that went away is no failure worth a message. */
int finishOutput(int code);

}  // namespace tamoctl
