// SPDX-License-Identifier: Apache-2.0
// The figures of a run, and the files to which they are written.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "bench/host/contestants.h"

namespace bench {

// The cost of one job.
struct Cost {
    double ns = 0;            // median of the repetitions
    double nsLow = 0;         // the lowest repetition
    double nsHigh = 0;        // the highest repetition
    double instructions = 0;  // on AArch64; 0 if not counted
};

struct Result {
    std::string name;
    std::map<std::string, Cost> costs;                       // by correction, or "queue"
    std::map<std::string, std::vector<double>> distortions;  // dB by correction, at kFrequencies
};

struct Results {
    std::string machine;  // what was measured on, lines of "key: value"
    std::vector<Result> frames;
    std::vector<Result> queues;
};

// The measured frequencies of the tone, in Hz.
inline constexpr std::array kFrequencies = {100.0, 1000.0, 5000.0, 10000.0};

// Total harmonic distortion and noise, in dB relative to the tone. A continuous tone of -1 dBFS
// goes in; every frame is corrected as requested (or not at all), so that the tone comes out a
// 240th lower or higher. The sine of that frequency is fitted by least squares to the second
// second, and the rest is compared with it. Rounding to 16 bits alone leaves about -97 dB.
double distortionOf(const FrameContestant& contestant, Correction correction, double frequency);

// Reads the lines that the program instructions printed.
void addInstructions(Results& results, const std::string& file);

// The tables, and whether the goals were reached.
std::string textOf(const Results& results);
// Writes host.txt, host.json and, for the picture, host.dat.
void write(const Results& results, const std::string& directory);

}  // namespace bench
