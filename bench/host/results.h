// SPDX-License-Identifier: Apache-2.0
// The figures of a run, and the files to which they are written.
#pragma once

#include <map>
#include <string>
#include <vector>

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

// Reads the lines that the program instructions printed.
void addInstructions(Results& results, const std::string& file);

// The tables, and whether the goals were reached.
std::string textOf(const Results& results);
// Writes host.txt, host.json and, for the picture, host.dat.
void write(const Results& results, const std::string& directory);

}  // namespace bench
