// SPDX-License-Identifier: Apache-2.0
// What the jobs cost on the simulated board, whose virtual clock counts an instruction as a
// nanosecond. Prints a line "name|correction|instructions" for each job: one frame, or one block
// through a queue.
#include <algorithm>
#include <cstdio>
#include <ctime>

#include "bench/host/contestants.h"

namespace {

constexpr int32_t kWarmUp = 240;
constexpr int64_t kBatchNs = 2000000;  // shorter than the interval between two timer interrupts
constexpr int32_t kBatches = 20;       // so that some have no interrupt

int64_t now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

int64_t costOf(bench::Job& job, int32_t times) {
    const int64_t before = now();
    job.run(times);
    return now() - before;
}

void report(const std::string& name, const char* what, bench::Job& job) {
    const int64_t once = costOf(job, kWarmUp) / kWarmUp;
    // An even number, as a block makes two frames.
    const auto times = static_cast<int32_t>(std::max<int64_t>(kBatchNs / once / 2 * 2, 24));
    int64_t least = INT64_MAX;
    for (int32_t batch = 0; batch < kBatches; batch++) {
        least = std::min(least, costOf(job, times));
    }
    printf("%s|%s|%.1f\n", name.c_str(), what, static_cast<double>(least) / times);
}

}  // namespace

int main() {
    for (const bench::FrameContestant& contestant : bench::frameContestants()) {
        for (const bench::Correction correction : bench::kCorrections) {
            report(contestant.name, bench::nameOf(correction), *contestant.make(correction));
        }
    }
    for (const bench::QueueContestant& contestant : bench::queueContestants()) {
        report(contestant.name, "queue", *contestant.make());
    }
}
