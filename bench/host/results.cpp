// SPDX-License-Identifier: Apache-2.0
#include "bench/host/results.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace bench {
namespace {

constexpr const char* kQueue = "queue";

__attribute__((format(printf, 1, 2))) std::string format(const char* text, ...) {
    char line[256];
    va_list values;
    va_start(values, text);
    vsnprintf(line, sizeof line, text, values);
    va_end(values);
    return line;
}

const Result& named(const std::vector<Result>& results, const std::string& name) {
    for (const Result& result : results) {
        if (result.name == name) {
            return result;
        }
    }
    fprintf(stderr, "no result of %s\n", name.c_str());
    abort();
}

std::string count(double instructions) {
    return instructions > 0 ? format("%10.0f", instructions) : format("%10s", "-");
}

std::string frameTable(const Results& results) {
    std::string text = format("%-29s%27s   %s\n%-29s", "a frame of 240",
                              "nanoseconds, this machine", "instructions, AArch64", "");
    for (int32_t column = 0; column < 2; column++) {
        for (const Correction correction : kCorrections) {
            text += format("%10s", nameOf(correction));
        }
    }
    text += '\n';
    for (const Result& result : results.frames) {
        text += format("%-29s", result.name.c_str());
        for (const Correction correction : kCorrections) {
            text += format("%10.1f", result.costs.at(nameOf(correction)).ns);
        }
        for (const Correction correction : kCorrections) {
            text += count(result.costs.at(nameOf(correction)).instructions);
        }
        text += '\n';
    }
    return text;
}

std::string queueTable(const Results& results) {
    std::string text = format("%-39s%10s%10s\n", "960 bytes in, twice 480 out", "ns", "instr.");
    for (const Result& result : results.queues) {
        const Cost& cost = result.costs.at(kQueue);
        text +=
            format("%-39s%10.1f", result.name.c_str(), cost.ns) + count(cost.instructions) + '\n';
    }
    return text;
}

std::string distortionTable(const Results& results, Correction correction) {
    std::string text = format("%-29s", (std::string("THD+N in dB, ") + nameOf(correction)).c_str());
    for (const double frequency : kFrequencies) {
        text += format("%7.0f Hz", frequency);
    }
    text += '\n';
    for (const Result& result : results.frames) {
        if (result.distortions.count(nameOf(correction)) > 0) {
            text += format("%-29s", result.name.c_str());
            for (const double distortion : result.distortions.at(nameOf(correction))) {
                text += format("%10.1f", distortion);
            }
            text += '\n';
        }
    }
    return text;
}

std::string goal(const char* what, double ours, double other, double limit) {
    const double ratio = ours / other;
    return format("  %-57s%5.2f, goal %.1f: %s\n", what, ratio, limit,
                  ratio <= limit ? "met" : "missed");
}

// The results for the goals, by one of a cost's figures.
std::string goalsOf(const Results& results, double Cost::*figure, const char* title) {
    const auto of = [&](const char* name, Correction correction) {
        return named(results.frames, name).costs.at(nameOf(correction)).*figure;
    };
    const auto ofQueue = [&](const char* name) {
        return named(results.queues, name).costs.at(kQueue).*figure;
    };
    std::string text = std::string(title) + '\n';
    text += goal("plain frame to bare copies", of(kOurs, Correction::kPlain),
                 of(kBareCopies, Correction::kPlain), 2);
    for (const Correction correction : {Correction::kStretched, Correction::kSqueezed}) {
        const std::string what = std::string(nameOf(correction)) + " frame to hand-written SIMD";
        text += goal((what + " (portable C++)").c_str(), of(kOurs, correction),
                     of(kSimd, correction), 4);
        text += goal((what + " (intrinsics)").c_str(), of(kOurs, correction), of(kSimd, correction),
                     1.5);
    }
    text += goal("queue to JACK's", ofQueue(kOurs), ofQueue(kJack), 1);
    return text;
}

bool counted(const Results& results) {
    return results.frames.front().costs.at(nameOf(Correction::kPlain)).instructions > 0;
}

std::string costsJson(const Result& result) {
    std::string text;
    for (const auto& [what, cost] : result.costs) {
        text += format("%s\"%s\": {\"ns\": %.2f, \"ns_low\": %.2f, \"ns_high\": %.2f",
                       text.empty() ? "" : ", ", what.c_str(), cost.ns, cost.nsLow, cost.nsHigh);
        text +=
            cost.instructions > 0 ? format(", \"instructions\": %.1f}", cost.instructions) : "}";
    }
    return "{" + text + "}";
}

std::string distortionsJson(const Result& result) {
    std::string text;
    for (const auto& [what, distortions] : result.distortions) {
        std::string values;
        for (size_t i = 0; i < distortions.size(); i++) {
            values +=
                format("%s\"%.0f\": %.2f", i == 0 ? "" : ", ", kFrequencies.at(i), distortions[i]);
        }
        text += format("%s\"%s\": {", text.empty() ? "" : ", ", what.c_str()) + values + "}";
    }
    return "{" + text + "}";
}

std::string listJson(const std::vector<Result>& results) {
    std::string text;
    for (const Result& result : results) {
        text += format("%s\n    {\"name\": \"%s\", \"cost\": ", text.empty() ? "" : ",",
                       result.name.c_str());
        text += costsJson(result);
        text += result.distortions.empty() ? "" : ", \"thdn_db\": " + distortionsJson(result);
        text += "}";
    }
    return "[" + text + "\n  ]";
}

std::string machineJson(const Results& results) {
    std::string text;
    std::istringstream lines(results.machine);
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(": ");
        text +=
            format("%s\n    \"%s\": \"", text.empty() ? "" : ",", line.substr(0, colon).c_str());
        text += line.substr(colon + 2) + "\"";
    }
    return "{" + text + "\n  }";
}

std::string jsonOf(const Results& results) {
    return "{\n  \"machine\": " + machineJson(results) +
           ",\n  \"frames\": " + listJson(results.frames) +
           ",\n  \"queues\": " + listJson(results.queues) + "\n}\n";
}

// Two blocks for gnuplot, frames and queues: name, then nanoseconds, then instructions.
std::string dataOf(const Results& results) {
    std::string text;
    for (const std::vector<Result>* list : {&results.frames, &results.queues}) {
        for (const Result& result : *list) {
            text += "\"" + result.name + "\"";
            const std::string corrected = list == &results.frames ? "squeezed" : kQueue;
            const std::string plain = list == &results.frames ? "plain" : kQueue;
            for (const std::string& what : {plain, corrected}) {
                text += format(" %.2f", result.costs.at(what).ns);
            }
            for (const std::string& what : {plain, corrected}) {
                text += format(" %.1f", result.costs.at(what).instructions);
            }
            text += '\n';
        }
        text += "\n\n";
    }
    return text;
}

}  // namespace

void addInstructions(Results& results, const std::string& file) {
    std::ifstream lines(file);
    for (std::string name, what, value; std::getline(lines, name, '|') &&
                                        std::getline(lines, what, '|') &&
                                        std::getline(lines, value);) {
        for (Result& result : what == kQueue ? results.queues : results.frames) {
            if (result.name == name) {
                result.costs.at(what).instructions = std::stod(value);
            }
        }
    }
}

std::string textOf(const Results& results) {
    std::string text = results.machine + '\n' + frameTable(results) + '\n' + queueTable(results);
    for (const Correction correction : kCorrections) {
        text += '\n' + distortionTable(results, correction);
    }
    text += '\n' + goalsOf(results, &Cost::ns, "goals, by time on this machine");
    if (counted(results)) {
        text += '\n' + goalsOf(results, &Cost::instructions, "goals, by instructions on AArch64");
    }
    return text;
}

void write(const Results& results, const std::string& directory) {
    std::ofstream(directory + "/host.txt") << textOf(results);
    std::ofstream(directory + "/host.json") << jsonOf(results);
    std::ofstream(directory + "/host.dat") << dataOf(results);
}

}  // namespace bench
