// SPDX-License-Identifier: Apache-2.0
#include "board/kit/host_player.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "board/kit/clock.h"
#include "board/kit/files.h"

namespace board {
namespace {

constexpr int64_t kBlockFrames = 4800;
constexpr Ns kPause = 250 * kMs;  // well below what the device's queue holds

}  // namespace

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
