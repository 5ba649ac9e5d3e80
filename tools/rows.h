/* Rows of columns: an aligned table on a terminal, tabs between the fields in a pipe, and with --json
 * one object a line.
 *
 * libsmartcols lays the table out: it knows the terminal's width and wide characters. The lines of a
 * pipe are plain, and cJSON makes the objects: the library's raw form escapes blanks, and its JSON is
 * one array that cannot be read before its end. */
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "lines.h"
#include "tamoctl.h"

namespace tamoctl {

struct Column {
    const char *title;  /* null: in JSON only */
    const char *member; /* null: not in JSON */
    bool number = false;
    bool shrinks = false; /* it is cut when the terminal is too narrow */
    int width = 0;        /* of an endless table, whose rows come one by one */
};

class Cell {
  public:
    Cell(std::string text) : text_(std::move(text)), form_(Form::text) {}
    Cell(const char *text) : Cell(std::string(text)) {}
    Cell(uint64_t number) : text_(std::to_string(number)), form_(Form::raw) {}
    Cell(uint32_t number) : Cell(uint64_t{number}) {}
    Cell(int64_t number) : text_(std::to_string(number)), form_(Form::raw) {}

    static Cell truth(bool value);
    /* Shown as `text`, and no member in JSON. */
    static Cell none(std::string text);
    /* Another text in JSON than in the table. */
    static Cell both(std::string shown, std::string json);

  private:
    friend class Rows;
    enum class Form { text, raw, none };
    std::string text_, json_;
    Form form_;
};

class Rows {
  public:
    /* Reads --json, --header, --full, --count and --timeout. */
    Rows(const Command &command, const Arguments &arguments, std::vector<Column> columns,
         Lines lines = Lines::finite);

    bool asJson() const { return json_; }

    /* False when no other row is wanted. */
    bool add(const std::vector<Cell> &row);

    /* A row below the others, on a terminal only. */
    void addTotal(const std::vector<Cell> &row);

    bool empty() const { return !any_; }

    /* Prints what add() kept, and returns the exit code. */
    int finish();

  private:
    std::vector<std::string> shown(const std::vector<Cell> &row) const;
    bool addJson(const std::vector<Cell> &row);
    std::string lineOf(const std::vector<std::string> &row) const;
    void printTable();

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> kept_;
    bool json_, header_, full_, endless_, any_ = false;
    uint64_t most_;
};

}  // namespace tamoctl
