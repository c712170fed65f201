// SPDX-License-Identifier: Apache-2.0
// random_walk --seed N --steps M [--over app|wire]: walks over everything, over what an app may do,
// or over both ends of the wire, and prints after which step something went wrong, and what. Every
// kStepsAProof steps and at the end it proves the daemon whole. tools/random-walk runs it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "tests/board/walk/walk.h"

namespace uafd {
namespace {

using namespace board;

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
        fprintf(stderr, "usage: random_walk --seed N --steps M [--over app|wire]\n");
        exit(2);
    }
    return strtol(value, nullptr, 10);
}

std::unique_ptr<Walk> walkOf(int argc, char** argv) {
    const auto seed = static_cast<uint64_t>(number(argc, argv, "--seed"));
    const char* const over = argument(argc, argv, "--over");
    if (over != nullptr && strcmp(over, "wire") == 0) {
        return wireWalk(seed);
    }
    return simulatedWalk(seed, over != nullptr && strcmp(over, "app") == 0);
}

// Returns the exit status: 1 when something went wrong.
int take(long steps, Walk* walk) {
    for (long step = 1; step <= steps; ++step) {
        printf("step %ld %lld ms ", step, static_cast<long long>(now() / kMs));
        std::string wrong = walk->step();
        if (wrong.empty() && (step % kStepsAProof == 0 || step == steps)) {
            wrong = walk->prove();
            if (wrong.empty()) {
                printf("whole after %ld\n", step);
            }
        }
        if (!wrong.empty()) {
            printf("wrong after %ld: %s\n", step, wrong.c_str());
            return 1;
        }
    }
    printf("measured: %s\n", walk->measured().c_str());
    return 0;
}

}  // namespace
}  // namespace uafd

using namespace uafd;

int main(int argc, char** argv) {
    try {
        const std::unique_ptr<Walk> walk = walkOf(argc, argv);
        return take(number(argc, argv, "--steps"), walk.get());
    } catch (const std::exception& failure) {
        printf("wrong: %s\n", failure.what());
        return 1;
    }
}
