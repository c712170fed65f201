// SPDX-License-Identifier: Apache-2.0
// Runs one soak, with the simulated host or, with --wire, over real USB: prints what it measured,
// writes it to /out/soak.txt, and fails with one sentence for each thing that is wrong. What it
// measured is lines "KEY VALUE...", which can be added up: latencies come as histograms.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "board/kit/files.h"
#include "tests/board/soak/soak.h"

namespace board {
namespace {

constexpr Ns kUs = 1000;
constexpr int64_t kGrowthMaxKb = 256;  // a new thread's heap
// The latency may wander through the whole range that latency control permits, and jitter moves it
// by as much again.
constexpr double kGainErrorMax = 480;

void addCounts(std::ostream& out, const std::string& name, const Counts& counts) {
    out << name << ".frames " << counts.frames << '\n'
        << name << ".lost " << counts.lost << '\n'
        << name << ".repeated " << counts.repeated << '\n'
        << name << ".unexplained " << counts.unexplained << '\n'
        << name << ".silent " << counts.silent << '\n'
        << name << ".clicks " << counts.clicks << '\n'
        << name << ".underruns " << counts.underruns << '\n'
        << name << ".overruns " << counts.overruns << '\n'
        << name << ".gained " << counts.gained << '\n';
}

void addTally(std::ostream& out, const std::string& name, const Tally& tally, Ns begin) {
    const Latencies& latencies = tally.latencies();
    addCounts(out, name, tally.countsOf(State::kCalm));
    out << name << ".outside " << tally.outside() << '\n'
        << name << ".lost_when_disturbed " << tally.countsOf(State::kDisturbed).lost << '\n'
        << name << ".latency_us " << latencies.smallest() / kUs << ' '
        << latencies.quantile(0.5) / kUs << ' ' << latencies.quantile(0.999) / kUs << ' '
        << latencies.largest() / kUs << '\n'
        << name << ".latency_bins" << latencies.text() << '\n'
        << name << ".minutes_us";
    for (const Ns minute : tally.minutes()) {
        out << ' ' << minute / kUs;
    }
    out << '\n';
    for (const Ns at : tally.wrongWhenCalm()) {
        out << name << ".wrong_at_ms " << (at - begin) / kMs << '\n';
    }
}

void addHoldings(std::ostream& out, const std::string& name, const Holdings& holdings) {
    out << name << ".resident_kb " << holdings.memory.residentKb << '\n'
        << name << ".private_kb " << holdings.memory.privateKb << '\n'
        << name << ".descriptors " << holdings.descriptors << '\n';
}

void addHour(std::ostream& out, size_t number, const Hour& hour) {
    out << "hour " << number << ' ' << hour.speakerFrames << ' ' << hour.micFrames << ' '
        << hour.wrong << ' ' << hour.disturbances << ' ' << hour.holdings.memory.residentKb << ' '
        << hour.holdings.memory.privateKb << ' ' << hour.holdings.descriptors << '\n';
}

// A disturbance fills or empties the buffer; latency control brings it back by one sample with each
// frame that it squeezes or stretches, mostly every second frame.
constexpr Ns kSpeakerBackMax = kSecond;
constexpr Ns kMicBackMax = 3 * kSecond;

class Problems {
  public:
    void add(bool wrong, const std::string& sentence) {
        if (wrong) {
            list.push_back(sentence);
        }
    }
    // A count that must be 0.
    void addCount(const std::string& direction, int64_t count, const std::string& what) {
        add(count != 0, direction + ": " + std::to_string(count) + " " + what);
    }
    std::vector<std::string> take() { return std::move(list); }

  private:
    std::vector<std::string> list;
};

void judge(Problems* problems, const std::string& name, const Tally& tally) {
    const Counts& counts = tally.countsOf(State::kCalm);
    problems->addCount(name, counts.lost, "frames lost");
    problems->addCount(name, counts.repeated, "frames repeated");
    problems->addCount(name, counts.unexplained, "frames of nothing that was sent");
    problems->addCount(name, counts.silent, "frames of silence");
    problems->addCount(name, counts.clicks, "clicks");
    problems->addCount(name, counts.underruns, "underruns");
    problems->addCount(name, counts.overruns, "overruns");
    problems->addCount(name, tally.outside(), "latencies outside of the window");
}

// One sentence for each thing that is wrong; none when the daemon did everything right.
std::vector<std::string> problemsOf(const Soak& soak) {
    Problems problems;
    judge(&problems, "speaker", soak.speaker());
    judge(&problems, "mic", soak.mic());
    const int64_t micFrames =
        soak.mic().countsOf(State::kCalm).frames + soak.mic().countsOf(State::kStrained).frames;
    const int64_t framesMin = int64_t{soak.plan.seconds} * kRate / 2;
    problems.add(std::min(soak.speaker().countsOf(State::kCalm).frames, micFrames) < framesMin,
                 "too little was streamed");
    problems.addCount("both", soak.result().xruns, "xruns");
    problems.add(
        soak.result().gainError > kGainErrorMax,
        "mic: latency control missed " + std::to_string(soak.result().gainError) + " samples");
    problems.add(soak.result().last.descriptors != soak.result().first.descriptors,
                 "descriptors came or went");
    problems.add(
        soak.result().last.memory.privateKb > soak.result().first.memory.privateKb + kGrowthMaxKb,
        "the daemon's memory has grown");
    for (const Outcome& outcome : soak.result().outcomes) {
        problems.add(outcome.speakerBack >= kSpeakerBackMax ||
                         (outcome.micBack >= kMicBackMax && !outcome.unsettled),
                     std::string("no way back after ") + nameOf(outcome.disturbance.kind));
    }
    problems.add(!soak.result().damage.empty(), "damage: " + soak.result().damage);
    return problems.take();
}

std::string reportOf(const Soak& soak) {
    const SoakPlan& plan = soak.plan;
    std::ostringstream out;
    out << "ppm " << plan.ppm << "\njitter_ms " << plan.jitterMs << "\nminutes "
        << plan.seconds / 60 << "\nseed " << plan.seed << '\n';
    addTally(out, "speaker", soak.speaker(), soak.result().begin);
    addTally(out, "mic", soak.mic(), soak.result().begin);
    out << "xruns " << soak.result().xruns << "\ngain_error " << soak.result().gainError << '\n';
    out << "strained.seconds " << soak.result().strainedSeconds << '\n';
    addCounts(out, "strained", soak.mic().countsOf(State::kStrained));
    addHoldings(out, "first", soak.result().first);
    addHoldings(out, "last", soak.result().last);
    for (size_t i = 0; i < soak.result().hours.size(); ++i) {
        addHour(out, i + 1, soak.result().hours[i]);
    }
    for (const Outcome& outcome : soak.result().outcomes) {
        out << "disturbance " << nameOf(outcome.disturbance.kind) << ' ' << outcome.atSecond << ' '
            << outcome.disturbance.length / kUs << ' ' << outcome.speakerBack / kUs << ' '
            << outcome.micBack / kUs << (outcome.unsettled ? " unsettled" : "") << '\n';
    }
    for (const std::string& problem : problemsOf(soak)) {
        out << "problem " << problem << '\n';
    }
    return out.str();
}

// Reads "--NAME=NUMBER" into the plan; other arguments are ignored.
SoakPlan planOf(int count, char** arguments) {
    SoakPlan plan;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const int value = equals == std::string::npos ? 0 : atoi(argument.c_str() + equals + 1);
        if (name == "--ppm") {
            plan.ppm = value;
        } else if (name == "--jitter-ms") {
            plan.jitterMs = value;
        } else if (name == "--minutes") {
            plan.seconds = value * 60;
        } else if (name == "--seconds") {
            plan.seconds = value;
        } else if (name == "--seed") {
            plan.seed = value;
        } else if (name == "--calm-seconds") {
            plan.calmSeconds = value;
        }
    }
    return plan;
}

std::unique_ptr<Soak> soakOf(int count, char** arguments) {
    const SoakPlan plan = planOf(count, arguments);
    const bool isOverTheWire =
        std::any_of(arguments + 1, arguments + count,
                    [](const char* argument) { return strcmp(argument, "--wire") == 0; });
    return isOverTheWire ? wireSoak(plan) : simulatedSoak(plan);
}

}  // namespace
}  // namespace board

using namespace board;

int main(int count, char** arguments) {
    try {
        const std::unique_ptr<Soak> soak = soakOf(count, arguments);
        soak->run();
        const std::string report = reportOf(*soak);
        put("/out/soak.txt", report);
        fputs(report.c_str(), stdout);
        return problemsOf(*soak).empty() ? 0 : 1;
    } catch (const std::exception& failure) {
        fprintf(stderr, "soak: %s\n", failure.what());
        return 2;
    }
}
