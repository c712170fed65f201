// SPDX-License-Identifier: Apache-2.0
// Runs one soak, with the simulated host or, with --wire, over real USB: prints what it measured,
// writes it to /out/soak.txt, and fails with one sentence for each thing that is wrong.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "board/kit/files.h"
#include "tests/board/soak/report.h"
#include "tests/board/soak/simulated_soak.h"
#include "tests/board/soak/wire_soak.h"

namespace {

// Reads "--NAME=NUMBER" into the plan; other arguments are ignored.
board::SoakPlan planOf(int count, char** arguments) {
    board::SoakPlan plan;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const int value = equals == std::string::npos ? 0 : atoi(argument.c_str() + equals + 1);
        if (name == "--ppm") {
            plan.ppm = value;
        } else if (name == "--jitter-ms") {
            plan.jitterMs = value;
        } else if (name == "--minutes") {
            plan.seconds = value * 60;
        } else if (name == "--seconds") {
            plan.seconds = value;
        } else if (name == "--seed") {
            plan.seed = value;
        } else if (name == "--calm-seconds") {
            plan.calmSeconds = value;
        }
    }
    return plan;
}

bool isOverTheWire(int count, char** arguments) {
    return std::any_of(arguments + 1, arguments + count,
                       [](const char* argument) { return strcmp(argument, "--wire") == 0; });
}

std::unique_ptr<board::Soak> soakOf(int count, char** arguments) {
    const board::SoakPlan plan = planOf(count, arguments);
    if (isOverTheWire(count, arguments)) {
        return std::make_unique<board::WireSoak>(plan);
    }
    return std::make_unique<board::SimulatedSoak>(plan);
}

}  // namespace

int main(int count, char** arguments) {
    try {
        const std::unique_ptr<board::Soak> soak = soakOf(count, arguments);
        soak->run();
        const std::string report = board::reportOf(*soak);
        board::put("/out/soak.txt", report);
        fputs(report.c_str(), stdout);
        return board::problemsOf(*soak).empty() ? 0 : 1;
    } catch (const std::exception& failure) {
        fprintf(stderr, "soak: %s\n", failure.what());
        return 2;
    }
}
