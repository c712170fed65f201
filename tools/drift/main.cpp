// SPDX-License-Identifier: Apache-2.0
// Simulates one scenario of the microphone direction and writes its reads to a CSV file, or prints
// the table of the common cases. tools/drift/run runs it and draws the picture.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>

#include <android/log.h>

#include "channel/uaf_ch.h"
#include "tools/drift/mic_simulation.h"

namespace {

using drift::inMs;
using drift::kMs;
using drift::kSecond;
using drift::Ns;

constexpr int kPpmMax = 100000;
constexpr double kTimeMaxMs = 3600e3;  // the limit for every time

struct Options {
    drift::Scenario scenario;
    Ns time = 60 * kSecond;
    const char* csv = nullptr;
    bool cases = false;
};

[[noreturn]] void refuse(const char* what) {
    fprintf(stderr, "drift: cannot use %s; see tools/drift/run --help\n", what);
    exit(2);
}

double numberOf(const char* text, double smallest, double largest, char end = '\0',
                char** rest = nullptr) {
    char* after = nullptr;
    const double number = strtod(text, &after);
    if (after == text || *after != end || !(number >= smallest && number <= largest)) {
        refuse(text);
    }
    if (rest != nullptr) {
        *rest = after + 1;
    }
    return number;
}

Ns timeOf(const char* ms) {
    return static_cast<Ns>(numberOf(ms, 0, kTimeMaxMs) * kMs);
}

// SECONDS:MS
drift::Pause pauseOf(const char* text, bool dropped) {
    char* length = nullptr;
    const double at = numberOf(text, 0, kTimeMaxMs / 1000, ':', &length);
    return {static_cast<Ns>(at * kSecond), timeOf(length), dropped};
}

Options optionsOf(int argc, char** argv) {
    const option known[] = {
        {"ppm", 1, nullptr, 'p'},   {"block", 1, nullptr, 'b'},   {"jitter", 1, nullptr, 'j'},
        {"phase", 1, nullptr, 'f'}, {"seed", 1, nullptr, 'd'},    {"stall", 1, nullptr, 's'},
        {"gap", 1, nullptr, 'g'},   {"seconds", 1, nullptr, 't'}, {"csv", 1, nullptr, 'o'},
        {"cases", 0, nullptr, 'c'}, {nullptr, 0, nullptr, 0}};
    Options options;
    drift::Scenario& scenario = options.scenario;
    for (int key = 0; (key = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (key) {
            case 'p':
                scenario.ppm = static_cast<int>(numberOf(optarg, -kPpmMax, kPpmMax));
                break;
            case 'b':
                scenario.blockFrames = static_cast<int>(numberOf(optarg, 1, 480000));
                break;
            case 'j':
                scenario.jitter = timeOf(optarg);
                break;
            case 'f':
                scenario.phase = timeOf(optarg);
                break;
            case 'd':
                scenario.seed = static_cast<uint64_t>(numberOf(optarg, 0, INT_MAX));
                break;
            case 's':
                scenario.pauses.push_back(pauseOf(optarg, false));
                break;
            case 'g':
                scenario.pauses.push_back(pauseOf(optarg, true));
                break;
            case 't':
                options.time = static_cast<Ns>(numberOf(optarg, 4, kTimeMaxMs / 1000) * kSecond);
                break;
            case 'o':
                options.csv = optarg;
                break;
            case 'c':
                options.cases = true;
                break;
            default:
                exit(2);
        }
    }
    if (optind < argc) {
        refuse(argv[optind]);
    }
    return options;
}

double msOf(int64_t samples) {
    return static_cast<double>(samples) * 1000 / uafd::kSampleRateHz;
}

// The field is empty where there is no latency.
void writeRow(FILE* file, const drift::Reading& reading, const drift::Counts& counts) {
    char latency[32] = "";
    if (reading.latency >= 0) {
        snprintf(latency, sizeof latency, "%.3f", inMs(reading.latency));
    }
    fprintf(file, "%.6f,%.3f,%.3f,%.3f,%s,%lld,%lld,%lld,%lld,%lld,%.3f,%.3f\n",
            static_cast<double>(reading.at) / kSecond, msOf(reading.depth), msOf(reading.depthLow),
            msOf(reading.depthHigh), latency, static_cast<long long>(counts.stretches),
            static_cast<long long>(counts.squeezes), static_cast<long long>(counts.underruns),
            static_cast<long long>(counts.emptyReads), static_cast<long long>(counts.overruns),
            msOf(counts.lost), msOf(counts.silent));
}

void printSpread(const char* what, const board::Spread& spread) {
    printf("%-12s %.2f to %.2f, median %.2f ms\n", what, inMs(spread.smallest),
           inMs(spread.largest), inMs(spread.median));
}

void print(const drift::Measured& measured) {
    const drift::Counts& counts = measured.counts;
    printf("after the first %lld s\n", static_cast<long long>(drift::kSettling / kSecond));
    printSpread("  depth", measured.depth);
    printSpread("  latency", measured.latency);
    printf("%-12s %.2f stretched, %.2f squeezed frames a second\n", "  corrected",
           measured.stretchesPerSecond, measured.squeezesPerSecond);
    printf("from the beginning\n");
    printf("%-12s %lld short and %lld silent frames, so %.1f ms of silence\n", "  starved",
           static_cast<long long>(counts.underruns), static_cast<long long>(counts.emptyReads),
           msOf(counts.silent));
    printf("%-12s %lld blocks found no room; %.1f ms of the app's sound were lost\n", "  full",
           static_cast<long long>(counts.overruns), msOf(counts.lost));
    printf("%-12s %.1f ms heard twice, after writes that were not whole blocks\n", "  stale",
           msOf(counts.stale));
    if (counts.enlargedAt >= 0) {
        printf("%-12s after %.2f s\n", "  enlarged",
               static_cast<double>(counts.enlargedAt) / kSecond);
    } else {
        printf("%-12s never\n", "  enlarged");
    }
}

int simulate(const Options& options) {
    FILE* const file = options.csv == nullptr ? nullptr : fopen(options.csv, "we");
    if (options.csv != nullptr && file == nullptr) {
        perror(options.csv);
        return 1;
    }
    drift::Look look;
    if (file != nullptr) {
        fputs(
            "t_s,depth_ms,low_ms,high_ms,latency_ms,stretches,squeezes,underruns,empty_reads,"
            "dropped_blocks,lost_ms,silent_ms\n",
            file);
        look = [file](const drift::Reading& reading, const drift::Counts& counts) {
            writeRow(file, reading, counts);
        };
    }
    print(drift::measure(options.scenario, options.time, look));
    if (file != nullptr && fclose(file) != 0) {
        perror(options.csv);
        return 1;
    }
    return 0;
}

}  // namespace

// In place of the daemon's log: the simulation counts what the frame buffer would log.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl*): Android's name
int __android_log_print(int /*prio*/, const char* /*tag*/, const char* /*fmt*/, ...) {
    return 0;
}

int main(int argc, char** argv) {
    const Options options = optionsOf(argc, argv);
    if (options.cases) {
        fputs(drift::tableOfCases().c_str(), stdout);
        return 0;
    }
    return simulate(options);
}
