// SPDX-License-Identifier: Apache-2.0
// The figures of a run, and the files that they are written to.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace bench {

// Of one job done once.
struct Cost {
    double ns = 0;            // median of the repetitions
    double nsLow = 0;         // the lowest of them
    double nsHigh = 0;        // the highest
    double instructions = 0;  // on AArch64, 0 where not counted
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

// Takes the lines that the program instructions prints.
void addInstructions(Results& results, const std::string& file);

// The tables and what became of the goals.
std::string textOf(const Results& results);
// Writes host.txt, host.json and, for the picture, host.dat.
void write(const Results& results, const std::string& directory);

}  // namespace bench
