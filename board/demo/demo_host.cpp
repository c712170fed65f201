// SPDX-License-Identifier: Apache-2.0
// The main job's boards: one with the simulated gadget and host, and one with real USB and what its
// host shows: its card, its streams, its mixer and what went over the wire.
#include "board/demo/demo_host.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include "board/kit/board.h"
#include "board/kit/files.h"
#include "board/kit/usb/host_mixer.h"
#include "board/kit/usb/wire_board.h"

namespace board {
namespace {

constexpr char kStreams[] = "/proc/asound/card2/stream0";
constexpr char kCards[] = "/proc/asound/cards";
constexpr int64_t kFrameBytes = sizeof(int16_t);
constexpr double kUnitsPerDb = 256;     // of volumes
constexpr int kStep = 256;              // the driver's, in these units
constexpr uint32_t kVolumeMessage = 2;  // a channel's message type to that of its volume

class StandInDemo : public DemoHost {
  public:
    explicit StandInDemo(DaemonStarter starter) : standIn("daemon", std::move(starter)) {}

    DaemonBoard& board() override { return standIn; }
    void lookAt(const Direction& /*direction*/) override {}
    std::vector<Row> report() override { return {}; }
    std::string findFault() override { return ""; }
    int settleMs() override { return 0; }
    std::vector<Message> toldAtPlug() override { return {}; }

  private:
    Board standIn;
};

// From the line that begins with `from` to before the next that begins with `to`, or to the end.
std::string part(const std::string& text, const std::string& from, const std::string& to) {
    const size_t begin = ("\n" + text).find("\n" + from);
    if (begin == std::string::npos) {
        return "";
    }
    std::string lines = text.substr(begin, text.find("\n" + to, begin) - begin);
    lines.erase(lines.find_last_not_of('\n') + 1);
    return lines + "\n";
}

class WireDemo : public DemoHost {
  public:
    explicit WireDemo(DaemonStarter starter) : wireBoard("daemon", {}, std::move(starter)) {}

    DaemonBoard& board() override { return wireBoard; }
    void lookAt(const Direction& direction) override;
    std::vector<Row> report() override;
    std::string findFault() override;
    int settleMs() override { return std::atoi(wireBoard.gadget.attribute("settle_ms").c_str()); }
    std::vector<Message> toldAtPlug() override;

  private:
    // What the wire has counted of a direction.
    struct Traffic {
        int64_t packets;
        int64_t frames;
        int64_t failed;  // packets that were lost, empty or wrong
    };

    Traffic trafficOf(const Direction& direction) const;
    std::string mixerLine(const Direction& direction);

    WireBoard wireBoard;
    std::string speakerStream;
    std::string micStream;
};

void WireDemo::lookAt(const Direction& direction) {
    const std::string streams = contents(kStreams);
    if (direction == kSpeakerDirection) {
        speakerStream = part(streams, "Playback:", "Capture:");
    } else {
        micStream = part(streams, "Capture:", "Playback:");
    }
}

// To see whether the range is true, the host's driver moves each volume by a step, and back.
std::vector<Message> WireDemo::toldAtPlug() {
    std::vector<Message> messages;
    for (const Direction& direction : {kSpeakerDirection, kMicDirection}) {
        const int volume = wireBoard.host.volume(direction);
        const uint32_t type = direction.channel + kVolumeMessage;
        messages.push_back({type, static_cast<uint16_t>(volume + kStep)});
        messages.push_back({type, static_cast<uint16_t>(volume)});
    }
    return messages;
}

WireDemo::Traffic WireDemo::trafficOf(const Direction& direction) const {
    const std::map<std::string, int64_t> values = wireBoard.wire.counters();
    const std::string name = WireAudioHost::endpoint(direction);
    return {values.at(name + ".packets"), values.at(name + ".bytes") / kFrameBytes,
            values.at(name + ".lost") + values.at(name + ".empty") + values.at(name + ".errors")};
}

std::string WireDemo::mixerLine(const Direction& direction) {
    HostMixer mixer;
    char line[80];
    snprintf(line, sizeof line, "%s: %.2f dB%s\n", HostMixer::volumeControl(direction).c_str(),
             mixer.volume(direction) / kUnitsPerDb, mixer.isMuted(direction) ? ", muted" : "");
    return line;
}

std::vector<Row> WireDemo::report() {
    put("/out/host.txt", part(contents(kCards), " 2 ", " 3 ") + "\n" + speakerStream + "\n" +
                             micStream + "\n" + mixerLine(kSpeakerDirection) +
                             mixerLine(kMicDirection));
    const Traffic speaker = trafficOf(kSpeakerDirection);
    const Traffic mic = trafficOf(kMicDirection);
    const auto perPacket = [](const Traffic& traffic) {
        return static_cast<double>(traffic.frames) / static_cast<double>(traffic.packets);
    };
    return {
        countRow("usb_packets", "USB packets", speaker.packets, mic.packets),
        {"usb_frames_per_packet", "frames in a USB packet", perPacket(speaker), perPacket(mic), 2},
        countRow("usb_packets_lost", "USB packets lost, empty or wrong", speaker.failed,
                 mic.failed),
        {"host_volume_db", "volume on the host, dB",
         wireBoard.host.volume(kSpeakerDirection) / kUnitsPerDb,
         wireBoard.host.volume(kMicDirection) / kUnitsPerDb, 2},
    };
}

std::string WireDemo::findFault() {
    for (const Direction& direction : {kSpeakerDirection, kMicDirection}) {
        const Traffic traffic = trafficOf(direction);
        if (traffic.failed != 0 || traffic.frames != traffic.packets * kFramesPerUsbFrame) {
            return std::string("USB packets of the ") + direction.name +
                   " were lost, empty, wrong or not full";
        }
    }
    return "";
}

}  // namespace

std::unique_ptr<DemoHost> makeWireDemo(DaemonStarter starter) {
    return std::make_unique<WireDemo>(std::move(starter));
}

std::unique_ptr<DemoHost> makeStandInDemo(DaemonStarter starter) {
    return std::make_unique<StandInDemo>(std::move(starter));
}

}  // namespace board
