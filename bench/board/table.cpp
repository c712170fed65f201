// SPDX-License-Identifier: Apache-2.0
#include "bench/board/table.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "board/kit/files.h"

namespace bench {
namespace {

// `missing` stands for no figure.
std::string textOf(const Figure& figure, int decimals, const char* missing) {
    if (!figure) {
        return missing;
    }
    char text[64];
    snprintf(text, sizeof text, "%.*f", decimals, *figure);
    return text;
}

std::string padded(const std::string& text, size_t width, bool right) {
    const std::string blanks(width - text.size(), ' ');
    return right ? blanks + text : text + blanks;
}

}  // namespace

Table::Table(std::string key, std::string title, std::vector<Column> columns)
    : key(std::move(key)), title(std::move(title)), columns(std::move(columns)) {}

void Table::add(const std::string& name, const std::vector<Figure>& figures) {
    if (figures.size() != columns.size()) {
        throw std::logic_error(key + ": " + name + " has not one figure a column");
    }
    rows.push_back({name, figures});
}

void Table::publish() const {
    const std::string text = markdown();
    fputs(text.c_str(), stdout);
    fflush(stdout);
    board::put("/out/" + key + ".md", text);
    board::put("/out/" + key + ".json", json());
    board::put("/out/" + key + ".tsv", values());
}

std::string Table::markdown() const {
    size_t nameWidth = 0;
    for (const Row& row : rows) {
        nameWidth = std::max(nameWidth, row.name.size());
    }
    std::string head = "| " + padded("", nameWidth, false) + " |";
    std::string rule = "|" + std::string(nameWidth + 2, '-') + "|";
    std::vector<std::string> lines;
    for (const Row& row : rows) {
        lines.push_back("| " + padded(row.name, nameWidth, false) + " |");
    }
    for (size_t i = 0; i < columns.size(); ++i) {
        const Column& column = columns[i];
        std::vector<std::string> texts;
        size_t width = column.title.size();
        for (const Row& row : rows) {
            texts.push_back(textOf(row.figures[i], column.decimals, "-"));
            width = std::max(width, texts.back().size());
        }
        head += " " + padded(column.title, width, true) + " |";
        rule += std::string(width + 1, '-') + ":|";
        for (size_t line = 0; line < lines.size(); ++line) {
            lines[line] += " " + padded(texts[line], width, true) + " |";
        }
    }
    std::string text = "\n" + title + "\n\n" + head + "\n" + rule + "\n";
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::string Table::json() const {
    std::string text = "{";
    for (const Row& row : rows) {
        text += std::string(text.size() > 1 ? "," : "") + "\n  \"" + row.name + "\": {";
        for (size_t i = 0; i < columns.size(); ++i) {
            text += (i == 0 ? "\"" : ", \"") + columns[i].key +
                    "\": " + textOf(row.figures[i], columns[i].decimals, "null");
        }
        text += "}";
    }
    return text + "\n}\n";
}

std::string Table::values() const {
    std::string text = "name";
    for (const Column& column : columns) {
        text += "\t" + column.key;
    }
    text += "\n";
    for (const Row& row : rows) {
        text += row.name;
        for (size_t i = 0; i < columns.size(); ++i) {
            text += "\t" + textOf(row.figures[i], columns[i].decimals, "NaN");
        }
        text += "\n";
    }
    return text;
}

}  // namespace bench
