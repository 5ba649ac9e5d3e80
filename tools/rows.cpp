/* Rows of columns: see rows.h. */
#include "rows.h"

#include <libsmartcols/libsmartcols.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "output.h"

namespace tamoctl {

namespace {

struct TableRelease {
    void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using Table = std::unique_ptr<libscols_table, TableRelease>;

/* Cuts the cells that are wider than their columns came out, with a mark. */
void markCuts(libscols_table *table, const std::vector<std::vector<std::string>> &rows) {
    for (size_t row = 0; row < rows.size(); row++) {
        for (size_t at = 0; at < rows[row].size(); at++) {
            const size_t width = scols_column_get_width(scols_table_get_column(table, at));
            if (displayWidth(rows[row][at]) > width) {
                scols_line_set_data(scols_table_get_line(table, row), at,
                                    cutToWidth(rows[row][at], width).c_str());
            }
        }
    }
}

}  // namespace

Cell Cell::truth(bool value) {
    Cell cell(value ? "true" : "false");
    cell.form_ = Form::raw;
    return cell;
}

Cell Cell::none(std::string text) {
    Cell cell(std::move(text));
    cell.form_ = Form::none;
    return cell;
}

Cell Cell::both(std::string shown, std::string json) {
    Cell cell(std::move(shown));
    cell.json_ = std::move(json);
    return cell;
}

Rows::Rows(const Command &command, const Arguments &arguments, std::vector<Column> columns,
           Lines lines)
    : columns_(std::move(columns)),
      json_(arguments.has("json")),
      header_(arguments.has("header") || onTerminal()),
      full_(arguments.has("full") || !onTerminal()),
      endless_(lines == Lines::endless),
      most_(arguments.number("count", 1).value_or(UINT64_MAX)) {
    beginLines(command, arguments, lines);
    if (endless_ && header_ && !json_) {
        std::vector<std::string> titles;
        for (const Column &column : columns_) {
            if (column.title != nullptr) {
                titles.emplace_back(column.title);
            }
        }
        printf("%s\n", lineOf(titles).c_str());
        (void)finishOutput(kSuccess);
    }
}

std::vector<std::string> Rows::shown(const std::vector<Cell> &row) const {
    std::vector<std::string> texts;
    for (size_t at = 0; at < columns_.size(); at++) {
        if (columns_[at].title != nullptr) {
            texts.push_back(printable(row[at].text_));
        }
    }
    return texts;
}

bool Rows::addJson(const std::vector<Cell> &row) {
    const Json object(cJSON_CreateObject());
    for (size_t at = 0; at < columns_.size(); at++) {
        const Cell &cell = row[at];
        const char *member = columns_[at].member;
        if (member == nullptr || cell.form_ == Cell::Form::none) {
            continue;
        }
        if (cell.form_ == Cell::Form::raw) {
            cJSON_AddRawToObject(object.get(), member, cell.text_.c_str());
        } else {
            addText(object.get(), member, cell.json_.empty() ? cell.text_ : cell.json_);
        }
    }
    return putLine(jsonLine(object));
}

/* A row of an endless table: the columns have fixed widths on a terminal. */
std::string Rows::lineOf(const std::vector<std::string> &row) const {
    std::string line;
    size_t at = 0;
    for (const Column &column : columns_) {
        if (column.title == nullptr) {
            continue;
        }
        const std::string &text = row[at++];
        const size_t width = displayWidth(text), wanted = static_cast<size_t>(column.width);
        const std::string gap(onTerminal() && width < wanted ? wanted - width : 0, ' ');
        const bool last = at == row.size();
        line += column.number ? gap + text : last ? text : text + gap;
        line += last ? "" : onTerminal() ? "  " : "\t";
    }
    const size_t most = terminalWidth();
    return full_ || displayWidth(line) <= most ? line : cutToWidth(line, most);
}

bool Rows::add(const std::vector<Cell> &row) {
    any_ = true;
    if (json_) {
        return addJson(row);
    }
    if (endless_) {
        return putLine(lineOf(shown(row)));
    }
    if (kept_.size() < most_) {
        kept_.push_back(shown(row));
    }
    return kept_.size() < most_;
}

void Rows::addTotal(const std::vector<Cell> &row) {
    if (onTerminal() && !json_) {
        kept_.push_back(shown(row));
    }
}

void Rows::printTable() {
    const Table table(scols_new_table());
    scols_table_set_termforce(table.get(), full_ ? SCOLS_TERMFORCE_NEVER : SCOLS_TERMFORCE_ALWAYS);
    scols_table_set_termwidth(table.get(), terminalWidth());
    scols_table_enable_noencoding(table.get(), 1);  // the cells are printable already
    scols_table_set_column_separator(table.get(), "  ");
    for (const Column &column : columns_) {
        if (column.title != nullptr) {
            const int flags = (column.number ? SCOLS_FL_RIGHT : 0) |
                              (column.shrinks && !full_ ? SCOLS_FL_TRUNC : 0);
            scols_table_new_column(table.get(), column.title, 0, flags);
        }
    }
    for (const std::vector<std::string> &row : kept_) {
        libscols_line *line = scols_table_new_line(table.get(), nullptr);
        for (size_t at = 0; at < row.size(); at++) {
            scols_line_set_data(line, at, row[at].c_str());
        }
    }
    char *text = nullptr;
    if (scols_print_table_to_string(table.get(), &text) == 0) {
        free(text);
        markCuts(table.get(), kept_);
        (void)scols_print_table(table.get());
    }
}

int Rows::finish() {
    if (json_ || endless_) {
        return endLines();
    }
    if (onTerminal() && !kept_.empty()) {
        printTable();
        return kSuccess;
    }
    if (header_ && !kept_.empty()) {
        std::vector<Cell> titles;
        for (const Column &column : columns_) {
            titles.emplace_back(column.title == nullptr ? "" : column.title);
        }
        kept_.insert(kept_.begin(), shown(titles));
    }
    for (const std::vector<std::string> &row : kept_) {
        for (size_t at = 0; at < row.size(); at++) {
            printf("%s%c", row[at].c_str(), at + 1 < row.size() ? '\t' : '\n');
        }
    }
    return endLines();
}

}  // namespace tamoctl
