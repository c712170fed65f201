// SPDX-License-Identifier: Apache-2.0
#include "board/kit/board.h"

#include <map>
#include <utility>

namespace board {
namespace {

constexpr char kReadsRecord[] = "uac_read";  // where the driver keeps its reader
constexpr char kHostPrefix[] = "host ";

bool beginsWith(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

// The control device's records, which are in the daemon's log as well.
bool isRepetition(const HostEvent& event) {
    return beginsWith(event.text, "uac record") || beginsWith(event.text, "uac read");
}

}  // namespace

void SimulatedAudioHost::play(const Voice& voice) {
    player.reset();
    host->command("flush speaker");
    player = std::make_unique<HostPlayer>(voice);
    player->fill(1);
    host->command("speaker on");
}

void SimulatedAudioHost::stopPlaying() {
    host->command("speaker off");
    player.reset();
    host->command("flush speaker");
}

void SimulatedAudioHost::record() {
    host->command("flush mic");
    host->takeRecording();
    host->command("mic on");
}

void SimulatedAudioHost::stopRecording() {
    host->command("mic off");
}

StreamPosition SimulatedAudioHost::position(const Direction& direction) {
    const std::map<std::string, int64_t> values = host->counters();
    const std::string stream = direction.name;
    // Before what it plays, the host sends the zeros of an empty queue.
    const char* before = direction == kSpeakerDirection ? ".first_frames" : ".on_frames";
    const double rate = kRate * (1 + static_cast<double>(values.at("ppb")) / 1e9);
    return {values.at(stream + ".frames") - values.at(stream + before),
            values.at(stream + ".last_ns"), static_cast<double>(kSecond) / rate};
}

std::optional<int64_t> SimulatedAudioHost::daemonsFirstFrame() {
    const std::map<std::string, int64_t> values = host->counters();
    if (values.at("mic.first_ns") == 0) {
        return std::nullopt;
    }
    return values.at("mic.first_frames") - values.at("mic.on_frames");
}

void SimulatedAudioHost::setVolume(const Direction& direction, int volume) {
    host->command("volume " + std::string(direction.name) + " " + std::to_string(volume));
}

int SimulatedAudioHost::volume(const Direction& direction) {
    return static_cast<int>(host->counter(std::string(direction.name) + ".volume"));
}

void SimulatedAudioHost::setMute(const Direction& direction, bool mute) {
    host->command("mute " + std::string(direction.name) + (mute ? " 1" : " 0"));
}

void SimulatedAudioHost::setPpb(int64_t ppb) {
    host->command("ppb " + std::to_string(ppb));
}

std::vector<TimelineEntry> SimulatedAudioHost::events(Ns since) {
    std::vector<TimelineEntry> entries;
    for (const HostEvent& event : host->eventsSince(since)) {
        if (beginsWith(event.text, kHostPrefix)) {
            entries.push_back({event.at, "host", event.text.substr(sizeof kHostPrefix - 1)});
        } else if (!isRepetition(event)) {
            entries.push_back({event.at, "driver", event.text});
        }
    }
    return entries;
}

Board::Board(const std::string& name, DaemonStarter starter)
    : DaemonBoard(name, std::move(starter)) {
    host.reset();
}

bool Board::isSettled() {
    return host.counter("records.waiting") == 0 && eventLoopSleepsIn(kReadsRecord);
}

}  // namespace board
