// SPDX-License-Identifier: Apache-2.0
// board_bench SECTION SECONDS [SUBJECTS]: measures one section of the benchmark, letting each
// stream run for that long, and comparing that many subjects.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>

#include "bench/board/sections.h"

namespace {

struct Section {
    const char* name;
    void (*measure)(const bench::Options& options);
};
constexpr Section kSections[] = {{"speaker", bench::measureSpeaker},
                                 {"microphone", bench::measureMicrophone},
                                 {"both", bench::measureBoth},
                                 {"profile", bench::measureProfile},
                                 {"latency", bench::measureLatency},
                                 {"growth", bench::measureGrowth},
                                 {"usb_speaker", bench::measureUsbSpeaker},
                                 {"usb_microphone", bench::measureUsbMicrophone},
                                 {"usb_both", bench::measureUsbBoth},
                                 {"usb_drift", bench::measureUsbDrift},
                                 {"apps_recording", bench::measureAppsRecording},
                                 {"apps_playing", bench::measureAppsPlaying}};

}  // namespace

int main(int argc, char** argv) {
    try {
        for (const Section& section : kSections) {
            if (argc > 2 && strcmp(section.name, argv[1]) == 0) {
                section.measure({atoll(argv[2]) * board::kSecond,
                                 argc > 3 ? strtoul(argv[3], nullptr, 10)
                                          : std::numeric_limits<size_t>::max()});
                return 0;
            }
        }
        fputs("bench: no such section\n", stderr);
    } catch (const std::exception& failure) {
        fprintf(stderr, "bench: %s\n", failure.what());
    }
    return 1;
}
