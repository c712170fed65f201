#include "tests/board/support/host_player.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "tests/board/support/clock.h"
#include "tests/board/support/files.h"

namespace board {
namespace {

constexpr int64_t kBlockFrames = 4800;
constexpr Ns kPause = 50 * kMs;  // well below what the device's queue holds

}  // namespace

HostPlayer::HostPlayer(Voice voice, int64_t frames)
    : voice_(std::move(voice)), frames_(frames), thread_([this] { run(); }) {}

HostPlayer::~HostPlayer() {
    stop_ = true;
    thread_.join();
}

void HostPlayer::run() {
    const Fd device = Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
    while (!stop_ && queued_ < frames_) {
        int16_t block[kBlockFrames];
        const int64_t count = std::min(kBlockFrames, frames_ - queued_);
        for (int64_t i = 0; i < count; ++i) {
            block[i] = voice_(queued_ + i);
        }
        const ssize_t written =
            write(device.get(), block, static_cast<size_t>(count) * sizeof(int16_t));
        if (written > 0) {
            queued_ += written / static_cast<ssize_t>(sizeof(int16_t));
        } else {
            sleepFor(kPause);
        }
    }
}

}  // namespace board
