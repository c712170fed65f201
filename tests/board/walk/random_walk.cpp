// random_walk --seed N --steps M: walks, and says after which step what went wrong. Every
// kStepsAProof steps and at the end the daemon is proved whole. tools/random-walk runs it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "tests/board/walk/walk.h"

namespace {

constexpr long kStepsAProof = 25;

long argument(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], name) == 0) {
            return strtol(argv[i + 1], nullptr, 10);
        }
    }
    fprintf(stderr, "usage: random_walk --seed N --steps M\n");
    exit(2);
}

// The exit status: 1 after an oddity.
int walk(long seed, long steps) {
    Walk walk(static_cast<uint64_t>(seed));
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
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return walk(argument(argc, argv, "--seed"), argument(argc, argv, "--steps"));
    } catch (const std::exception& failure) {
        printf("wrong: %s\n", failure.what());
        return 1;
    }
}
