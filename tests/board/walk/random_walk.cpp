// SPDX-License-Identifier: Apache-2.0
// random_walk --seed N --steps M [--over app]: walks over everything, or over what an app may do,
// and prints after which step something went wrong, and what. Every kStepsAProof steps and at the
// end it proves the daemon whole. tools/random-walk runs it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "tests/board/walk/walk.h"

namespace uafd {
namespace {

constexpr long kStepsAProof = 25;

// The argument after `name`, or null.
const char* argument(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    return nullptr;
}

long number(int argc, char** argv, const char* name) {
    const char* const value = argument(argc, argv, name);
    if (value == nullptr) {
        fprintf(stderr, "usage: random_walk --seed N --steps M [--over app]\n");
        exit(2);
    }
    return strtol(value, nullptr, 10);
}

Scope scopeOf(int argc, char** argv) {
    const char* const scope = argument(argc, argv, "--over");
    return scope != nullptr && strcmp(scope, "app") == 0 ? Scope::kApp : Scope::kAll;
}

void printDelays(const board::RecordWatch& records) {
    printf(
        "measured: %lld records; the longest wait of one %s; the longest stop of the microphone "
        "%s\n",
        static_cast<long long>(records.read()), records.wait().text().c_str(),
        records.micStop().text().c_str());
}

// Returns the exit status: 1 when something went wrong.
int walk(long seed, long steps, Scope scope) {
    Walk walk(static_cast<uint64_t>(seed), scope);
    for (long step = 1; step <= steps; ++step) {
        printf("step %ld %lld ms ", step, static_cast<long long>(board::now() / board::kMs));
        std::string wrong = walk.step();
        if (wrong.empty() && (step % kStepsAProof == 0 || step == steps)) {
            wrong = walk.prove();
            if (wrong.empty()) {
                printf("whole after %ld\n", step);
            }
        }
        if (!wrong.empty()) {
            printf("wrong after %ld: %s\n", step, wrong.c_str());
            return 1;
        }
    }
    printDelays(walk.records());
    return 0;
}

}  // namespace
}  // namespace uafd

using namespace uafd;

int main(int argc, char** argv) {
    try {
        return walk(number(argc, argv, "--seed"), number(argc, argv, "--steps"),
                    scopeOf(argc, argv));
    } catch (const std::exception& failure) {
        printf("wrong: %s\n", failure.what());
        return 1;
    }
}
