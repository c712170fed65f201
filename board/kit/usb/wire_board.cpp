// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/wire_board.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "board/kit/files.h"
#include "board/kit/usb/host_mixer.h"
#include "board/kit/usb/usb_host.h"

namespace board {
namespace {

constexpr char kDetector[] = "/sys/module/usb_board/parameters/plugged";
constexpr char kDaemonsPlayback[] = "/proc/asound/Gadget/pcm0p/sub0/status";
constexpr char kReadsRecord[] = "control_read";  // where the driver keeps its reader
constexpr int64_t kFrameBytes = sizeof(int16_t);

size_t indexOf(const Direction& direction) {
    return direction.channel - kSpeakerDirection.channel;
}

// The number behind "NAME : " in a stream's status.
std::optional<int64_t> valueIn(const std::string& status, const std::string& name) {
    const size_t at = status.find(name);
    const size_t colon = status.find(':', at);
    if (at == std::string::npos || colon == std::string::npos) {
        return std::nullopt;
    }
    return std::atoll(status.c_str() + colon + 1);
}

// What has ended a stream before it was stopped.
std::string endOf(const PcmStream& stream) {
    return stream.isOver() ? std::string(", over: ") + snd_strerror(stream.error()) : "";
}

// Of the control transfers only those by which the host sets something: the others are its reading
// of descriptors and ranges.
bool isWorthALine(const WireEvent& event) {
    constexpr char kAnyControl[] = "control";
    constexpr char kSetCur[] = "control 21 01";
    return event.text.rfind(kAnyControl, 0) != 0 || event.text.rfind(kSetCur, 0) == 0;
}

// A process that has just been forked still has our files until it runs for the first time.
void unloadOrFail(const char* module) {
    int error = 0;
    waitFor([&] {
        error = unloadModule(module);
        return error != EWOULDBLOCK;
    });
    if (error != 0) {
        errno = error;
        fail(std::string("unloading ") + module);
    }
}

// Restored before the gadget is made; the board's own card comes first, so that it is card 0.
Wire readyWire() {
    loadModule("usb_board");
    Wire wire;
    wire.restore();
    return wire;
}

}  // namespace

WireAudioHost::WireAudioHost(Wire* wire, const KernelGadget* gadget) : wire(wire), gadget(gadget) {}

const char* WireAudioHost::endpoint(const Direction& direction) {
    return direction == kSpeakerDirection ? "ep1out" : "ep2in";
}

void WireAudioHost::note(const std::string& what) {
    done.push_back({now(), "host", what});
}

int64_t WireAudioHost::bytesMoved(const Direction& direction) const {
    return wire->counterOrZero(std::string(endpoint(direction)) + ".bytes");
}

void WireAudioHost::play(const Voice& voice) {
    stopPlaying();
    note("speaker on");
    bytesBefore[indexOf(kSpeakerDirection)] = bytesMoved(kSpeakerDirection);
    player = std::make_unique<PcmPlayer>(kHostPcm, voice);
}

void WireAudioHost::stopPlaying() {
    if (player) {
        note("speaker off" + endOf(*player));
        player.reset();
    }
}

void WireAudioHost::record() {
    stopRecording();
    note("mic on");
    bytesBefore[indexOf(kMicDirection)] = bytesMoved(kMicDirection);
    recorder = std::make_unique<PcmRecorder>(kHostPcm);
}

void WireAudioHost::stopRecording() {
    if (recorder) {
        note("mic off" + endOf(*recorder));
        recorder.reset();
    }
}

Samples WireAudioHost::takeRecording() {
    return recorder ? recorder->take() : Samples();
}

StreamPosition WireAudioHost::position(const Direction& direction) {
    const std::map<std::string, int64_t> values = wire->counters();
    const std::string name = endpoint(direction);
    const int64_t bytes = values.at(name + ".bytes") - bytesBefore[indexOf(direction)];
    const double rate = kRate * (1 + static_cast<double>(values.at("ppb")) / 1e9);
    return {bytes / kFrameBytes, values.at(name + ".last_ns"), static_cast<double>(kSecond) / rate};
}

int64_t WireAudioHost::preparedFrames() {
    return std::atoll(gadget->attribute("req_number").c_str()) * kFramesPerUsbFrame;
}

// The card's position tells what is out of its ring: that has been sent, or is prepared.
std::optional<int64_t> WireAudioHost::daemonsFirstFrame() {
    std::optional<int64_t> taken;
    int64_t sent = 0;
    do {
        sent = bytesMoved(kMicDirection);
        const std::string status = contents(kDaemonsPlayback);
        if (status.find("state: RUNNING") == std::string::npos) {
            return std::nullopt;
        }
        taken = valueIn(status, "hw_ptr");
    } while (bytesMoved(kMicDirection) != sent);
    if (!taken) {
        throw std::runtime_error(std::string(kDaemonsPlayback) + " has no position");
    }
    return (sent - bytesBefore[indexOf(kMicDirection)]) / kFrameBytes + preparedFrames() - *taken;
}

void WireAudioHost::setVolume(const Direction& direction, int volume) {
    note("volume " + std::string(direction.name) + " " + std::to_string(volume));
    HostMixer().setVolume(direction, volume);
}

int WireAudioHost::volume(const Direction& direction) {
    return HostMixer().volume(direction);
}

void WireAudioHost::setMute(const Direction& direction, bool mute) {
    note("mute " + std::string(direction.name) + (mute ? " 1" : " 0"));
    HostMixer().setMute(direction, mute);
}

void WireAudioHost::setPpb(int64_t ppb) {
    note("ppb " + std::to_string(ppb));
    wire->setPpb(ppb);
}

void WireAudioHost::unplug() {
    note("unplug");
    put(kDetector, "0");
    wire->unplug();
    if (!UsbHost::waitForCard(false)) {
        throw std::runtime_error("the host keeps the card of an unplugged board");
    }
}

void WireAudioHost::plug() {
    note("plug");
    put(kDetector, "1");
    wire->plug();
    if (!UsbHost::waitForCard()) {
        throw std::runtime_error("the host has no card of the board");
    }
}

std::vector<TimelineEntry> WireAudioHost::events(Ns since) {
    std::vector<TimelineEntry> entries;
    for (const TimelineEntry& entry : done) {
        if (entry.at >= since) {
            entries.push_back(entry);
        }
    }
    for (const WireEvent& event : wire->events()) {
        if (event.at >= since && isWorthALine(event)) {
            entries.push_back({event.at, "wire", event.text});
        }
    }
    return entries;
}

WireBoard::WireBoard(const std::string& name, const std::map<std::string, std::string>& attributes,
                     DaemonStarter starter)
    : DaemonBoard(name, std::move(starter)), wire(readyWire()), gadget("vexa", attributes) {
    gadget.bind();
    host.plug();
}

WireBoard::~WireBoard() {
    daemon.stop();
    app.reset();
    micService.reset();
}

void WireBoard::unloadController() {
    { const Wire closing(std::move(wire)); }
    unloadOrFail("usb_wire");
}

void WireBoard::loadController() {
    loadModule("usb_wire");
    wire = Wire();
}

void WireBoard::reloadDriver() {
    gadget.takeApart();
    unloadOrFail("usb_f_vexa");
    gadget.make();  // the kernel loads it
}

// The only reader sleeps: no record waits for it.
bool WireBoard::isSettled() {
    return eventLoopSleepsIn(kReadsRecord);
}

}  // namespace board
