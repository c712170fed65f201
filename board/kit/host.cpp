// SPDX-License-Identifier: Apache-2.0
#include "board/kit/host.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace board {
namespace {

constexpr double kPpbUnit = 1e9;
constexpr int64_t kBlockFrames = 4800;  // rendered at a time
constexpr Ns kPause = 250 * kMs;        // well below what the device's queue holds

}  // namespace

Host::Host()
    : ModuleControl("/dev/usb_host", "/proc/usb_host"),
      log(Fd::open("/dev/usb_host_log", O_RDONLY | O_NONBLOCK)),
      mic(Fd::open("/dev/usb_host_mic", O_RDONLY | O_NONBLOCK)) {}

void Host::reset() {
    for (const char* text :
         {"fault clear", "speaker off", "mic off", "stall speaker 0", "stall mic 0", "ppb 0",
          "volume speaker 0", "volume mic 0", "mute speaker 0", "mute mic 0", "flush speaker",
          "flush mic", "cable 1", "usb_state CONFIGURED quiet"}) {
        command(text);
    }
    if (counter("card") != 1) {
        command("unbind");
    }
    if (counter("bound") == 0) {
        command("bind 1");
    }
}

const std::vector<HostEvent>& Host::events() {
    char buffer[4096];
    for (ssize_t got = 0; (got = read(log.get(), buffer, sizeof buffer)) > 0;) {
        partialLine.append(buffer, static_cast<size_t>(got));
        size_t begin = 0;
        for (size_t end = 0; (end = partialLine.find('\n', begin)) != std::string::npos;
             begin = end + 1) {
            const size_t space = partialLine.find(' ', begin);
            seenEvents.push_back({std::stoll(partialLine.substr(begin, space - begin)),
                                  partialLine.substr(space + 1, end - space - 1)});
        }
        partialLine.erase(0, begin);
    }
    return seenEvents;
}

std::vector<HostEvent> Host::eventsSince(Ns since) {
    std::vector<HostEvent> later;
    for (const HostEvent& event : events()) {
        if (event.at >= since) {
            later.push_back(event);
        }
    }
    return later;
}

int Host::countEvents(const std::string& beginning, Ns since) {
    int count = 0;
    for (const HostEvent& event : eventsSince(since)) {
        count += event.text.compare(0, beginning.size(), beginning) == 0 ? 1 : 0;
    }
    return count;
}

Ns Host::frameTime(const std::string& direction, int64_t frame) const {
    const auto values = counters();
    const int64_t onFrames = values.at(direction + ".on_frames");
    const int64_t usbFrames = (frame - onFrames) / kFramesPerUsbFrame + 1;
    const double hostRate = 1 + static_cast<double>(values.at("ppb")) / kPpbUnit;
    return values.at(direction + ".on_ns") +
           static_cast<Ns>(static_cast<double>(usbFrames * kMs) / hostRate);
}

Samples Host::takeRecording() {
    Samples recording;
    int16_t buffer[4800];
    for (ssize_t got = 0; (got = read(mic.get(), buffer, sizeof buffer)) > 0;) {
        recording.insert(recording.end(), buffer,
                         buffer + static_cast<size_t>(got) / sizeof(int16_t));
    }
    return recording;
}

HostPlayer::HostPlayer(Voice voice, int64_t frames)
    : voice(std::move(voice)), frameLimit(frames), thread([this] { run(); }) {}

HostPlayer::~HostPlayer() {
    stop = true;
    thread.join();
}

void HostPlayer::run() {
    const Fd device = Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
    Samples block;  // the last one rendered, and how much of it is queued
    size_t done = 0;
    while (!stop && queuedFrames < frameLimit) {
        if (done == block.size()) {
            block = render(voice, queuedFrames, std::min(kBlockFrames, frameLimit - queuedFrames));
            done = 0;
        }
        const ssize_t written =
            write(device.get(), block.data() + done, (block.size() - done) * sizeof(int16_t));
        if (written > 0) {
            const size_t frames = static_cast<size_t>(written) / sizeof(int16_t);
            done += frames;
            queuedFrames += static_cast<int64_t>(frames);
        } else {
            sleepFor(kPause);
        }
    }
}

}  // namespace board
