// SPDX-License-Identifier: Apache-2.0
// Runs one soak: prints what it measured, writes it to /out/soak.txt, and fails with one sentence
// for each thing that is wrong.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "board/kit/files.h"
#include "tests/board/soak/report.h"

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
            plan.minutes = value;
        } else if (name == "--seed") {
            plan.seed = value;
        } else if (name == "--calm-seconds") {
            plan.calmSeconds = value;
        }
    }
    return plan;
}

}  // namespace

int main(int count, char** arguments) {
    try {
        board::Soak soak(planOf(count, arguments));
        soak.run();
        const std::string report = board::reportOf(soak);
        board::put("/out/soak.txt", report);
        fputs(report.c_str(), stdout);
        return board::problemsOf(soak).empty() ? 0 : 1;
    } catch (const std::exception& failure) {
        fprintf(stderr, "soak: %s\n", failure.what());
        return 2;
    }
}
