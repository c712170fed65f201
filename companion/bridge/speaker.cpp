// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/speaker.h"

#include <cerrno>
#include <uafd_companion.h>

namespace uafd {
namespace {

constexpr int64_t kPauseNs = 100000000;  // the host's stream is over: the daemon sends each 5 ms
constexpr double kPeriodS = 0.005;       // of the daemon
constexpr size_t kPieceFrames = 480;     // of sound that has not waited
constexpr double kSpareS = 0.04;         // above the target, before sound is dropped
constexpr size_t kFramesMax = 4096;      // at a time

}  // namespace

int Speaker::attach(Card* newCard) {
    card = newCard;
    isRunning = false;
    control.reset();
    if (card == nullptr) {
        return 0;
    }
    const double rate = card->rate();
    const double ratio = rate / UAFD_RATE;
    const auto needed = 2 * card->periodFrames() + static_cast<size_t>(kPeriodS * rate);
    target = std::max(static_cast<size_t>(latencyMs / 1000 * rate), needed);
    target = std::min(target, card->bufferFrames() - static_cast<size_t>(kPeriodS * rate));
    control.emplace(rate);
    heard.reserve(kFramesMax);
    made.reserve(static_cast<size_t>(2 * kFramesMax * std::max(ratio, 1.0)));
    return resampler.open(ratio) ? 0 : -ENOMEM;
}

void Speaker::convert(const int16_t* stereo, size_t frames) {
    heard.resize(frames);
    for (size_t i = 0; i < frames; ++i) {
        heard[i] = static_cast<float>(stereo[2 * i]) / -static_cast<float>(INT16_MIN);
    }
    gain.apply(heard.data(), frames);
    peak.hear(heard.data(), frames);
    made.clear();
    resampler.process(heard.data(), frames, control->correction(), &made);
}

int Speaker::play(const int16_t* stereo, size_t frames, int64_t nowNs) {
    if (card == nullptr) {
        return 0;
    }
    // Sound that has waited shows that this program was late, and no pause of the host.
    const int stopped = frames > kPieceFrames ? 0 : watch(nowNs);
    if (stopped < 0) {
        return stopped;
    }
    heardNs = nowNs;
    if (!isRunning) {
        resampler.restart();
        gain.fadeIn();
    }
    convert(stereo, frames);
    const int result = isRunning ? goOn(nowNs) : begin(nowNs);
    if (result != -EPIPE) {
        return result;
    }
    ++counts.xruns;
    const int ready = card->stop();
    return ready < 0 ? ready : begin(nowNs);
}

// Fills the card up to the target: silence, then the sound. Of sound that has waited for a program
// that started late, the oldest is left out.
int Speaker::begin(int64_t nowNs) {
    if (made.size() > target) {
        counts.lostFrames += static_cast<int64_t>(made.size() - target);
        made.erase(made.begin(), made.end() - static_cast<std::ptrdiff_t>(target));
    }
    made.insert(made.begin(), target - made.size(), 0.0F);
    int result = card->write(made.data(), made.size());
    if (result >= 0) {
        result = card->start();
    }
    isRunning = result >= 0;
    control->restart();
    controlNs = nowNs;
    filled = target;
    return result;
}

int Speaker::goOn(int64_t nowNs) {
    const int delay = card->delay();
    if (delay < 0) {
        return delay;
    }
    const size_t frames = static_cast<size_t>(delay) + made.size();
    if (frames >
        std::min(card->bufferFrames(), target + static_cast<size_t>(kSpareS * card->rate()))) {
        counts.lostFrames += static_cast<int64_t>(made.size());
        return 0;
    }
    const int result = card->write(made.data(), made.size());
    if (result < 0) {
        return result;
    }
    filled = frames;
    steer(nowNs);
    return 0;
}

int Speaker::watch(int64_t nowNs) {
    if (!isRunning || nowNs - heardNs < kPauseNs) {
        return 0;
    }
    isRunning = false;
    return card->stop();
}

PathFacts Speaker::facts() const {
    PathFacts facts;
    facts.isRunning = isRunning;
    facts.counts = counts;
    if (isRunning) {
        facts.latencyMs = 1000 * static_cast<double>(filled) / card->rate();
        facts.ppm = -control->correction() * kPpm;
    }
    return facts;
}

}  // namespace uafd
