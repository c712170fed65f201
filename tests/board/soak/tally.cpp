// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/tally.h"

#include <algorithm>

namespace board {
namespace {

constexpr Ns kMinute = 60 * kSecond;
constexpr size_t kWrongMax = 20;         // whose times are kept
constexpr int64_t kUsbFrameFrames = 48;  // audio frames in a millisecond of the host

int64_t floorDivide(int64_t a, int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

}  // namespace

StreamClock::StreamClock(int64_t frames, Ns lastAt, double nsPerFrame)
    : frames(frames), lastAt(lastAt), usbFrameNs(nsPerFrame * kUsbFrameFrames) {}

Ns StreamClock::timeOf(int64_t frame) const {
    const int64_t usbFrames = floorDivide(frame - frames, kUsbFrameFrames) + 1;
    return lastAt + static_cast<Ns>(static_cast<double>(usbFrames) * usbFrameNs);
}

void Tally::setState(State state) {
    currentState = state;
    latestWrongAt = 0;
}

void Tally::note(Ns at, Ns latency) {
    if (!latencyWindow.holds(latency)) {
        noteWrong(at);
    }
    if (currentState == State::kDisturbed) {
        return;
    }
    outsideWindow += currentState == State::kStrained || latencyWindow.holds(latency) ? 0 : 1;
    all.add(latency);
    if (at >= minuteEnd) {
        if (minute.count() > 0) {
            minuteMedians.push_back(minute.quantile(0.5));
        }
        minute.clear();
        minuteEnd = at + kMinute;
    }
    minute.add(latency);
}

void Tally::noteWrong(Ns at) {
    latestWrongAt = std::max(latestWrongAt, at);
    if (currentState == State::kCalm && calmWrongs.size() < kWrongMax) {
        calmWrongs.push_back(at);
    }
}

}  // namespace board
