// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/microphone.h"

#include <cerrno>
#include <cmath>
#include <uafd_companion.h>

namespace uafd {
namespace {

constexpr int kRefusedMost = 20;                 // blocks: the host has not recorded for 200 ms
constexpr size_t kSpareFrames = UAFD_RATE / 25;  // above the target, before sound is dropped
constexpr size_t kReadFrames = 1024;             // at a time
constexpr float kFullScale = 32768;

int16_t sampleOf(float value) {
    return static_cast<int16_t>(
        std::clamp(std::nearbyint(value * kFullScale), -kFullScale, kFullScale - 1));
}

}  // namespace

int Microphone::attach(Card* newCard) {
    card = newCard;
    isRunning = isFlowing = false;
    refusedBlocks = kRefusedMost;
    control.reset();
    if (card == nullptr) {
        return 0;
    }
    const double ratio = UAFD_RATE / card->rate();
    const auto periods = static_cast<size_t>(2 * ratio * static_cast<double>(card->periodFrames()));
    target =
        std::max(static_cast<size_t>(latencyMs / 1000 * UAFD_RATE), UAFD_BLOCK_FRAMES + periods);
    control.emplace(UAFD_RATE);
    caught.resize(kReadFrames);
    waiting.reserve(static_cast<size_t>(4 * kReadFrames * std::max(ratio, 1.0)));
    return resampler.open(ratio) ? 0 : -ENOMEM;
}

int Microphone::stop() {
    const bool wasRunning = isRunning;
    isRunning = isFlowing = false;
    return wasRunning ? card->stop() : 0;
}

int Microphone::fill(int16_t* block, int64_t nowNs) {
    if (card == nullptr) {
        return 0;
    }
    if (refusedBlocks >= kRefusedMost) {
        return stop();
    }
    ++refusedBlocks;
    int result = capture();
    if (result == -EPIPE) {
        ++counts.xruns;
        put(waiting.size(), true, block);
        result = stop();
    }
    if (result < 0) {
        return result;
    }
    if (isRunning && !isFlowing && waiting.size() >= target) {
        begin(nowNs);
    }
    if (isFlowing) {
        give(block, nowNs);
    }
    return 0;
}

// Starts the card, or takes all that it has heard.
int Microphone::capture() {
    if (!isRunning) {
        waiting.clear();
        resampler.restart();
        const int result = card->start();
        isRunning = result >= 0;
        return result;
    }
    int frames = 0;
    do {
        frames = card->read(caught.data(), kReadFrames);
        if (frames > 0) {
            resampler.process(caught.data(), static_cast<size_t>(frames), control->correction(),
                              &waiting);
        }
    } while (frames == static_cast<int>(kReadFrames));
    return frames;
}

void Microphone::begin(int64_t nowNs) {
    waiting.erase(waiting.begin(), waiting.end() - static_cast<std::ptrdiff_t>(target));
    isFlowing = true;
    gain.fadeIn();
    control->restart();
    controlNs = nowNs;
}

void Microphone::give(int16_t* block, int64_t nowNs) {
    filled = waiting.size();
    if (filled < UAFD_BLOCK_FRAMES) {
        ++counts.xruns;
        isFlowing = false;
        put(filled, true, block);
        return;
    }
    if (filled > target + kSpareFrames) {
        counts.lostFrames += static_cast<int64_t>(filled - target);
        waiting.erase(waiting.begin(), waiting.end() - static_cast<std::ptrdiff_t>(target));
        filled = target;
        control->restart();
    }
    steer(nowNs);
    put(UAFD_BLOCK_FRAMES, false, block);
}

// The first frames that wait, at most a block of them. What fades out is followed by silence.
void Microphone::put(size_t frames, bool fadesOut, int16_t* block) {
    frames = std::min<size_t>(frames, UAFD_BLOCK_FRAMES);
    gain.apply(waiting.data(), frames);
    peak.hear(waiting.data(), frames);
    for (size_t i = 0; i < frames; ++i) {
        const float factor =
            fadesOut ? 1 - static_cast<float>(i + 1) / static_cast<float>(frames) : 1;
        block[2 * i] = block[2 * i + 1] = sampleOf(waiting[i] * factor);
    }
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(frames));
}

PathFacts Microphone::facts() const {
    PathFacts facts;
    facts.isRunning = isFlowing;
    facts.counts = counts;
    if (isFlowing) {
        facts.latencyMs = 1000.0 * static_cast<double>(filled) / UAFD_RATE;
        facts.ppm = control->correction() * kPpm;
    }
    return facts;
}

}  // namespace uafd
