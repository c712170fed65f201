// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/way.h"

#include <algorithm>

namespace board {
namespace {

constexpr Ns kMinute = 60 * kSecond;
constexpr size_t kWrongMax = 20;  // whose times are kept

int64_t floorDivide(int64_t a, int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

}  // namespace

StreamClock::StreamClock(const Host& host, const std::string& direction) {
    const auto values = host.counters();
    frames_ = values.at(direction + ".frames");
    lastAt_ = values.at(direction + ".last_ns");
    usbFrameNs_ = kMs / (1 + static_cast<double>(values.at("ppb")) / 1e9);
}

Ns StreamClock::timeOf(int64_t frame) const {
    const int64_t usbFrames = floorDivide(frame - frames_, kFramesPerUsbFrame) + 1;
    return lastAt_ + static_cast<Ns>(static_cast<double>(usbFrames) * usbFrameNs_);
}

void Way::setState(State state) {
    state_ = state;
    lastWrongAt_ = 0;
}

void Way::note(Ns at, Ns latency) {
    if (!window_.holds(latency)) {
        noteWrong(at);
    }
    if (state_ == State::kDisturbed) {
        return;
    }
    outside_ += state_ == State::kStrained || window_.holds(latency) ? 0 : 1;
    all_.add(latency);
    if (at >= minuteEnd_) {
        if (minute_.count() > 0) {
            minutes_.push_back(minute_.quantile(0.5));
        }
        minute_.clear();
        minuteEnd_ = at + kMinute;
    }
    minute_.add(latency);
}

void Way::noteWrong(Ns at) {
    lastWrongAt_ = std::max(lastWrongAt_, at);
    if (state_ == State::kCalm && wrongWhenCalm_.size() < kWrongMax) {
        wrongWhenCalm_.push_back(at);
    }
}

}  // namespace board
