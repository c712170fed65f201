// SPDX-License-Identifier: Apache-2.0
// The closing table of the main job: a row for each measure, a column for each direction.
#pragma once

#include <string>
#include <vector>

#include "board/kit/clock.h"

namespace board {

struct Row {
    const char* key;    // in the summary
    const char* title;  // in the printed table
    double toApp;
    double toHost;
    int decimals;
};

Row countRow(const char* key, const char* title, int64_t toApp, int64_t toHost);
// Shown in milliseconds.
Row timeRow(const char* key, const char* title, Ns toApp, Ns toHost);

std::string tableText(const std::vector<Row>& rows);
// {"KEY": {"host_to_app": N, "app_to_host": N}, ...}
std::string tableJson(const std::vector<Row>& rows);

}  // namespace board
