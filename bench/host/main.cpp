// SPDX-License-Identifier: Apache-2.0
// Measures every contestant's jobs with Google Benchmark, and what the resamplers do to a tone:
//   host_bench MACHINE INSTRUCTIONS DIRECTORY [--benchmark_...]
// MACHINE is a file that describes the machine, INSTRUCTIONS the output of the program instructions
// (empty if it did not run). The results go to the directory and to standard output.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "bench/host/results.h"

namespace {

using bench::Cost;
using bench::Result;
using bench::Results;

constexpr int32_t kBatch = 240;  // jobs between two readings of the clock

// Keeps the times of every repetition, keyed by the benchmark's name, and shows progress.
class Times : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                all[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
            }
        }
        fputc('.', stderr);
    }

    Cost costOf(const std::string& name) {
        std::vector<double>& times = all.at(name);
        std::sort(times.begin(), times.end());
        return {times[times.size() / 2], times.front(), times.back(), 0};
    }

  private:
    std::map<std::string, std::vector<double>> all;
};

// Memory at certain distances from the stack, modulo a page, makes loads wait for unrelated stores,
// which can take up to a third of a plain frame's time. So each repetition's job gets another place
// in memory.
void moveHeap() {
    static std::vector<std::vector<char>> taken;
    static std::minstd_rand random;
    taken.emplace_back(64 * (random() % 64));
}

// Makes a new job for each repetition.
template <class Make>
void add(const std::string& name, Make make) {
    benchmark::RegisterBenchmark(name.c_str(), [make](benchmark::State& state) {
        moveHeap();
        const auto job = make();
        while (state.KeepRunningBatch(kBatch)) {
            job->run(kBatch);
        }
    });
}

std::string key(const std::string& name, const std::string& what) {
    return name + "/" + what;
}

void addAll() {
    for (const bench::FrameContestant& contestant : bench::frameContestants()) {
        for (const bench::Correction correction : bench::kCorrections) {
            add(key(contestant.name, bench::nameOf(correction)),
                [contestant, correction] { return contestant.make(correction); });
        }
    }
    for (const bench::QueueContestant& contestant : bench::queueContestants()) {
        add(key(contestant.name, "queue"), contestant.make);
    }
}

Results gathered(Times& times) {
    Results results;
    for (const bench::FrameContestant& contestant : bench::frameContestants()) {
        Result result{contestant.name, {}, {}};
        for (const bench::Correction correction : bench::kCorrections) {
            const char* const what = bench::nameOf(correction);
            result.costs[what] = times.costOf(key(contestant.name, what));
            if (contestant.name == bench::kBareCopies) {
                continue;  // is not a resampler
            }
            for (const double frequency : bench::kFrequencies) {
                result.distortions[what].push_back(
                    bench::distortionOf(contestant, correction, frequency));
            }
        }
        results.frames.push_back(result);
    }
    for (const bench::QueueContestant& contestant : bench::queueContestants()) {
        const Cost cost = times.costOf(key(contestant.name, "queue"));
        results.queues.push_back({contestant.name, {{"queue", cost}}, {}});
    }
    return results;
}

std::string contentOf(const char* file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 4) {
        fputs("usage: host_bench MACHINE INSTRUCTIONS DIRECTORY [--benchmark_...]\n", stderr);
        return 2;
    }
    addAll();
    Times times;
    benchmark::RunSpecifiedBenchmarks(&times);
    Results results = gathered(times);
    results.machine = contentOf(argv[1]);
    bench::addInstructions(results, argv[2]);
    bench::write(results, argv[3]);
    fprintf(stderr, "\n");
    fputs(bench::textOf(results).c_str(), stdout);
}
