// SPDX-License-Identifier: Apache-2.0
// A table of figures and the three forms in which it leaves the board: Markdown for readers, JSON
// for programs, tab-separated values for the picture. One thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

struct Column {
    std::string key;    // in JSON
    std::string title;  // for readers, with the unit
    int decimals;
};

// None where the quantity does not apply.
using Figure = std::optional<double>;

class Table {
  public:
    Table(std::string key, std::string title, std::vector<Column> columns);

    // One figure a column.
    void add(const std::string& name, const std::vector<Figure>& figures);

    // Prints the Markdown and puts all three forms into /out: KEY.md, KEY.json, KEY.tsv. Throws
    // when it cannot.
    void publish() const;

  private:
    struct Row {
        std::string name;
        std::vector<Figure> figures;
    };

    std::string markdown() const;
    std::string json() const;
    std::string values() const;

    const std::string key;
    const std::string title;
    const std::vector<Column> columns;
    std::vector<Row> rows;
};

}  // namespace bench
