// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/soak.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace board {
namespace {

constexpr Ns kMinute = 60 * kSecond;
constexpr Ns kHour = 60 * kMinute;
constexpr Ns kLook = 5 * kSecond;
constexpr Ns kSettling = 3 * kSecond;  // of a stream that has begun
constexpr int kJitterHeldMs = 3;       // that the buffer holds as it is at first
constexpr Ns kRecovery = kSecond;      // after a disturbance, at least
constexpr Ns kRecoveryMax = 10 * kSecond;
constexpr Ns kRecovered = kSecond / 5;  // so long after the last that was wrong
constexpr int64_t kBlockFrames = 480;
constexpr Window kSpeakerWindow = {3500000, 5500000};
constexpr Window kMicWindow = {15 * kMs, 24 * kMs};
constexpr Window kMicWindowEnlarged = {28 * kMs, 42 * kMs};

int16_t spoken(int64_t frame) {
    return tone().at(frame);
}

}  // namespace

void Soak::comeUp() {
    AppOptions options;
    options.jitter = plan_.jitterMs * kMs;
    options.jitterSeed = plan_.seed;
    options.speaks = false;
    board_.start(true, options);
    board_.micService.reset();  // its millisecond ticks would cost time for nothing
    board_.host.command("ppb " + std::to_string(plan_.ppm * 1000));
    board_.app->speak(spoken);
    player_ = std::make_unique<HostPlayer>(spoken);
    waitFor([this] { return player_->queued() > kRate; });
    board_.app->takeHeard();
    board_.host.command("speaker on");
    board_.app->pauseSpeaking(false);
    board_.host.command("mic on");
    begin_ = now();
    const auto values = board_.host.counters();
    speaker_ = std::make_unique<SpeakerWay>(kSpeakerWindow, values.at("speaker.on_frames"));
    mic_ = std::make_unique<MicWay>(kMicWindow, values.at("mic.on_frames"), [this](int64_t frame) {
        return board_.app->timeOfFrame(frame);
    });
    anchor();
    settle();
}

// From the beginning of the microphone's stream until its latency keeps to its window.
void Soak::settle() {
    sleepFor(2 * kSettling);
    look();
}

// Writes that come too late for the buffer as it is at first starve it, until they do so often
// enough that the daemon buffers twice as much.
bool Soak::isStrained() {
    return plan_.jitterMs > kJitterHeldMs &&
           board_.daemon.count("increased ssrs queue depth", logMark_) == 0;
}

// Until the daemon buffers more and the latency keeps to its window.
void Soak::bearStrain(Ns until) {
    if (plan_.jitterMs <= kJitterHeldMs) {
        return;
    }
    mic_->setState(State::kStrained);
    for (; now() < until && isStrained(); ++strainedSeconds_) {
        sleepUntil(std::min(until, now() + kSecond));
        look();
    }
    mic_->setState(State::kDisturbed);
    mic_->setWindow(kMicWindowEnlarged);
    sleepUntil(std::min(until, now() + kSettling));
    look();
}

// The recording tells whether latency control made up for the clocks' difference, and for no more.
void Soak::stayCalm(Ns until) {
    speaker_->setState(State::kCalm);
    bearStrain(until);
    mic_->setState(State::kCalm);
    const Counts before = mic_->countsOf(State::kCalm);
    while (now() < until) {
        sleepUntil(std::min(until, now() + kLook));
        look();
        noteHour();
    }
    const Counts& after = mic_->countsOf(State::kCalm);
    const auto frames = static_cast<double>(after.frames - before.frames);
    const auto gained = static_cast<double>(after.gained - before.gained);
    const double drift = frames - frames / (1 + plan_.ppm * 1e-6);
    gainError_ = std::max(gainError_, std::abs(gained - drift));
    speaker_->setState(State::kDisturbed);
    mic_->setState(State::kDisturbed);
}

void Soak::disturbOnce() {
    const auto number = static_cast<int64_t>(outcomes_.size());
    const Disturbance disturbance = disturbanceOf(plan_.seed, number + plan_.seed);
    const int64_t atSecond = (now() - begin_) / kSecond;
    const int64_t opens = board_.host.counter("playback.opens");
    const size_t mark = board_.daemon.mark();
    disturb(&board_, disturbance);
    const Ns end = now();
    look();
    anchor();
    sleepUntil(end + kRecovery);
    const bool anew = board_.host.counter("playback.opens") != opens;
    if (anew) {
        logMark_ = mark;
        settle();
    } else {
        look();
    }
    const bool unsettled = anew || isStrained();
    // Latency control takes longer for some ways.
    while (!unsettled && now() < end + kRecoveryMax && mic_->lastWrongAt() > now() - kRecovered) {
        sleepFor(kRecovered);
        look();
    }
    outcomes_.push_back({disturbance, atSecond, std::max<Ns>(speaker_->lastWrongAt() - end, 0),
                         std::max<Ns>(mic_->lastWrongAt() - end, 0), unsettled});
}

// Both streams move again.
void Soak::anchor() {
    sleepFor(2 * kMs);
    speakerClock_ = StreamClock(board_.host, "speaker");
    micClock_ = StreamClock(board_.host, "mic");
}

void Soak::look() {
    const auto values = board_.host.counters();
    if (values.at("playback.starts") != playbackStarts_) {
        playbackStarts_ = values.at("playback.starts");
        mic_->restart(values.at("mic.start_frames"));
    }
    const Samples recorded = board_.host.takeRecording();
    mic_->addSent(board_.app->takeSentBlocks());
    mic_->add(recorded, micClock_);
    const int64_t lostBlocks = board_.app->lostBlocks();
    mic_->counts().lost += (lostBlocks - lostBlocks_) * kBlockFrames;
    lostBlocks_ = lostBlocks;
    speaker_->add(board_.app->takeHeard(), speakerClock_);
}

// Once an hour, and for who looks on.
void Soak::noteHour() {
    if (now() < begin_ + static_cast<Ns>(hours_.size() + 1) * kHour) {
        return;
    }
    const Counts& speaker = speaker_->countsOf(State::kCalm);
    const Counts& mic = mic_->countsOf(State::kCalm);
    hours_.push_back(
        {speaker.frames, mic.frames, speaker.wrong() + mic.wrong(), outcomes_.size(), holdings()});
    printf("hour %zu: %lld wrong, %lld kB\n", hours_.size(),
           static_cast<long long>(hours_.back().wrong),
           static_cast<long long>(hours_.back().holdings.memory.privateKb));
    fflush(stdout);
}

Holdings Soak::holdings() const {
    return {memoryOf(board_.daemon.pid()),
            static_cast<int64_t>(descriptorsOf(board_.daemon.pid()).size())};
}

void Soak::finish() {
    last_ = holdings();
    const auto values = board_.host.counters();
    xruns_ = values.at("playback.xruns") + values.at("capture.xruns");
    for (const Outcome& outcome : outcomes_) {
        xruns_ -= outcome.disturbance.kind == DisturbanceKind::kMicXrun ||
                          outcome.disturbance.kind == DisturbanceKind::kSpeakerXrun
                      ? 1
                      : 0;
    }
    player_.reset();
    damage_ = board_.findDamage();
}

void Soak::run() {
    comeUp();
    const Ns end = begin_ + plan_.minutes * kMinute;
    stayCalm(now() + kLook);
    first_ = holdings();
    while (now() < end) {
        stayCalm(plan_.calmSeconds > 0 ? std::min(end, now() + plan_.calmSeconds * kSecond) : end);
        if (now() < end) {
            disturbOnce();
        }
    }
    finish();
}

}  // namespace board
