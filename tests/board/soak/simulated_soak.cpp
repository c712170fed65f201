// SPDX-License-Identifier: Apache-2.0
// A soak with the simulated host.
#include <map>
#include <optional>
#include <string>

#include "board/kit/board.h"
#include "tests/board/soak/soak.h"

namespace board {
namespace {

class SimulatedSoak : public Soak {
  public:
    explicit SimulatedSoak(const SoakPlan& plan) : Soak(plan) {}

  private:
    DaemonBoard& board() override { return simulated; }
    StreamClock clockOf(const Direction& direction) override;
    int64_t beginOf(const Direction& direction) override;
    std::optional<int64_t> newPlayback() override;
    int64_t playbackOpens() override { return simulated.host.counter("playback.opens"); }
    int64_t xruns() override;
    Ns prepared() override { return 0; }
    void disturb(const Disturbance& disturbance) override;
    // The host sends one command and, after `time`, another.
    void switchFor(Ns time, const std::string& first, const std::string& then);

    Board simulated{"soak"};
    int64_t playbackStarts = 0;
};

StreamClock SimulatedSoak::clockOf(const Direction& direction) {
    const std::map<std::string, int64_t> values = simulated.host.counters();
    const std::string stream = direction.name;
    return {values.at(stream + ".frames"), values.at(stream + ".last_ns"),
            simulated.audioHost().position(direction).nsPerFrame};
}

int64_t SimulatedSoak::beginOf(const Direction& direction) {
    return simulated.host.counter(std::string(direction.name) + ".on_frames");
}

std::optional<int64_t> SimulatedSoak::newPlayback() {
    const std::map<std::string, int64_t> values = simulated.host.counters();
    if (values.at("playback.starts") == playbackStarts) {
        return std::nullopt;
    }
    playbackStarts = values.at("playback.starts");
    return values.at("mic.start_frames");
}

int64_t SimulatedSoak::xruns() {
    return simulated.host.counter("playback.xruns") + simulated.host.counter("capture.xruns");
}

void SimulatedSoak::switchFor(Ns time, const std::string& first, const std::string& then) {
    simulated.host.command(first);
    sleepFor(time);
    simulated.host.command(then);
}

void SimulatedSoak::disturb(const Disturbance& disturbance) {
    const Ns time = disturbance.length;
    switch (disturbance.kind) {
        case DisturbanceKind::kAppLate:
            simulated.app->stallSpeaking(time);
            sleepFor(time);
            break;
        case DisturbanceKind::kAppDeaf:
            simulated.app->pauseListening(true);
            sleepFor(time);
            simulated.app->pauseListening(false);
            break;
        case DisturbanceKind::kMicXrun:
            simulated.host.command("xrun mic");
            break;
        case DisturbanceKind::kSpeakerXrun:
            simulated.host.command("xrun speaker");
            break;
        case DisturbanceKind::kMicStall:
            switchFor(time, "stall mic 1", "stall mic 0");
            break;
        case DisturbanceKind::kSpeakerStall:
            switchFor(time, "stall speaker 1", "stall speaker 0");
            break;
        case DisturbanceKind::kMicOff:
            switchFor(time, "mic off", "mic on");
            break;
        case DisturbanceKind::kSpeakerOff:
            switchFor(time, "speaker off", "speaker on");
            break;
    }
}

}  // namespace

std::unique_ptr<Soak> simulatedSoak(const SoakPlan& plan) {
    return std::make_unique<SimulatedSoak>(plan);
}

}  // namespace board
