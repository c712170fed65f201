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
    : voice_(std::move(voice)), frames_(frames), thread_([this] { run(); }) {}

HostPlayer::~HostPlayer() {
    stop_ = true;
    thread_.join();
}

void HostPlayer::run() {
    const Fd device = Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
    Samples block;  // the last one rendered, and how much of it is queued
    size_t done = 0;
    while (!stop_ && queued_ < frames_) {
        if (done == block.size()) {
            block = render(voice_, queued_, std::min(kBlockFrames, frames_ - queued_));
            done = 0;
        }
        const ssize_t written =
            write(device.get(), block.data() + done, (block.size() - done) * sizeof(int16_t));
        if (written > 0) {
            const size_t frames = static_cast<size_t>(written) / sizeof(int16_t);
            done += frames;
            queued_ += static_cast<int64_t>(frames);
        } else {
            sleepFor(kPause);
        }
    }
}

}  // namespace board
