// SPDX-License-Identifier: Apache-2.0
#include "board/demo/table.h"

#include <cstdio>

namespace board {

Row countRow(const char* key, const char* title, int64_t toApp, int64_t toHost) {
    return {key, title, static_cast<double>(toApp), static_cast<double>(toHost), 0};
}

Row timeRow(const char* key, const char* title, Ns toApp, Ns toHost) {
    return {key, title, static_cast<double>(toApp) / kMs, static_cast<double>(toHost) / kMs, 2};
}

std::string tableText(const std::vector<Row>& rows) {
    char line[120];
    snprintf(line, sizeof line, "%-40s %14s %14s\n", "", "host to app", "app to host");
    std::string text = line;
    for (const Row& row : rows) {
        snprintf(line, sizeof line, "%-40s %14.*f %14.*f\n", row.title, row.decimals, row.toApp,
                 row.decimals, row.toHost);
        text += line;
    }
    return text;
}

std::string tableJson(const std::vector<Row>& rows) {
    std::string json = "{";
    for (const Row& row : rows) {
        char member[120];
        snprintf(
            member, sizeof member, "%s\n  \"%s\": {\"host_to_app\": %.*f, \"app_to_host\": %.*f}",
            json.size() > 1 ? "," : "", row.key, row.decimals, row.toApp, row.decimals, row.toHost);
        json += member;
    }
    return json + "\n}\n";
}

}  // namespace board
