// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/soak.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace board {
namespace {

constexpr Ns kMinute = 60 * kSecond;
constexpr Ns kHour = 60 * kMinute;
constexpr Ns kLook = 5 * kSecond;
constexpr Ns kSettling = 3 * kSecond;  // after a stream has begun
constexpr int kJitterHeldMs = 3;       // what the daemon's small buffer absorbs
constexpr Ns kRecovery = kSecond;      // after a disturbance, at least
constexpr Ns kRecoveryMax = 10 * kSecond;
constexpr Ns kRecovered = kSecond / 5;  // so long after the last error
constexpr int64_t kBlockFrames = 480;
constexpr Window kSpeakerWindow = {3500000, 5500000};
constexpr Window kMicWindow = {15 * kMs, 24 * kMs};
constexpr Window kMicWindowEnlarged = {28 * kMs, 42 * kMs};

struct Kind {
    const char* name;
    Ns shortest;
    Ns longest;
};

// A stream's pause may be shorter or longer than the time for which a channel waits before it
// stops.
constexpr Kind kKinds[] = {
    {"app_late", 15 * kMs, 40 * kMs},
    {"app_deaf", 15 * kMs, 40 * kMs},
    {"mic_xrun", 0, 0},
    {"speaker_xrun", 0, 0},
    {"mic_stall", 15 * kMs, 300 * kMs},
    {"speaker_stall", 15 * kMs, 300 * kMs},
    {"mic_off", 5 * kMs, 300 * kMs},
    {"speaker_off", 5 * kMs, 300 * kMs},
};

const Kind& kindOf(DisturbanceKind kind) {
    return kKinds[static_cast<size_t>(kind)];
}

// Disturbance `number` of the soak with this seed; the kinds take turns.
Disturbance disturbanceOf(int64_t seed, int64_t number) {
    const auto kind =
        static_cast<DisturbanceKind>(number % static_cast<int64_t>(std::size(kKinds)));
    const Kind& limits = kindOf(kind);
    const auto draw = static_cast<uint16_t>(noise(number + (seed << 32)));
    return {kind, limits.shortest + (limits.longest - limits.shortest) * draw / 65536};
}

int16_t spoken(int64_t frame) {
    return tone().at(frame);
}

}  // namespace

const char* nameOf(DisturbanceKind kind) {
    return kindOf(kind).name;
}

void Soak::comeUp() {
    AppOptions options;
    options.jitter = plan.jitterMs * kMs;
    options.jitterSeed = plan.seed;
    options.speaks = false;
    board().start(true, options);
    board().micService.reset();  // its millisecond ticks would cost time for nothing
    AudioHost& host = board().audioHost();
    host.setPpb(plan.ppm * 1000);
    board().app->speak(spoken);
    board().app->takeHeard();
    host.play(spoken);
    board().app->pauseSpeaking(false);
    host.record();
    found.begin = now();
    speakerTally = std::make_unique<SpeakerTally>(kSpeakerWindow, beginOf(kSpeakerDirection));
    micTally = std::make_unique<MicTally>(
        Window{kMicWindow.low + prepared(), kMicWindow.high + prepared()}, beginOf(kMicDirection),
        [this](int64_t frame) { return board().app->timeOfFrame(frame); });
    anchor();
    settle();
}

// Waits until the microphone's stream, once begun, keeps its latency in its window.
void Soak::settle() {
    sleepFor(2 * kSettling);
    look();
}

// Writes that are too late for the daemon's small buffer starve it; once that has happened often
// enough the daemon doubles its buffer.
bool Soak::isStrained() {
    return plan.jitterMs > kJitterHeldMs &&
           board().daemon.count("increased ssrs queue depth", logMark) == 0;
}

// Waits until the daemon has enlarged its buffer and the latency keeps to its window.
void Soak::bearStrain(Ns until) {
    if (plan.jitterMs <= kJitterHeldMs) {
        return;
    }
    micTally->setState(State::kStrained);
    for (; now() < until && isStrained(); ++found.strainedSeconds) {
        sleepUntil(std::min(until, now() + kSecond));
        look();
    }
    micTally->setState(State::kDisturbed);
    micTally->setWindow(
        {kMicWindowEnlarged.low + prepared(), kMicWindowEnlarged.high + prepared()});
    sleepUntil(std::min(until, now() + kSettling));
    look();
}

// The recording shows whether latency control made up for the difference between the clocks, and
// for no more.
void Soak::stayCalm(Ns until) {
    speakerTally->setState(State::kCalm);
    bearStrain(until);
    micTally->setState(State::kCalm);
    const Counts before = micTally->countsOf(State::kCalm);
    while (now() < until) {
        sleepUntil(std::min(until, now() + kLook));
        look();
        noteHour();
    }
    const Counts& after = micTally->countsOf(State::kCalm);
    const auto frames = static_cast<double>(after.frames - before.frames);
    const auto gained = static_cast<double>(after.gained - before.gained);
    const double drift = frames - frames / (1 + plan.ppm * 1e-6);
    found.gainError = std::max(found.gainError, std::abs(gained - drift));
    speakerTally->setState(State::kDisturbed);
    micTally->setState(State::kDisturbed);
}

void Soak::disturbOnce() {
    const auto number = static_cast<int64_t>(found.outcomes.size());
    const Disturbance disturbance = disturbanceOf(plan.seed, number + plan.seed);
    const int64_t atSecond = (now() - found.begin) / kSecond;
    const int64_t opens = playbackOpens();
    const size_t mark = board().daemon.mark();
    disturb(disturbance);
    const Ns end = now();
    look();
    anchor();
    sleepUntil(end + kRecovery);
    const bool reopened = playbackOpens() != opens;
    if (reopened) {
        logMark = mark;
        settle();
    } else {
        look();
    }
    const bool unsettled = reopened || isStrained();
    // Latency control needs longer for some disturbances.
    while (!unsettled && now() < end + kRecoveryMax &&
           micTally->lastWrongAt() > now() - kRecovered) {
        sleepFor(kRecovered);
        look();
    }
    found.outcomes.push_back({disturbance, atSecond,
                              std::max<Ns>(speakerTally->lastWrongAt() - end, 0),
                              std::max<Ns>(micTally->lastWrongAt() - end, 0), unsettled});
}

// Call this when both streams move again.
void Soak::anchor() {
    sleepFor(2 * kMs);
    speakerClock = clockOf(kSpeakerDirection);
    micClock = clockOf(kMicDirection);
}

void Soak::look() {
    if (const std::optional<int64_t> first = newPlayback()) {
        micTally->restart(*first);
    }
    const Samples recorded = board().audioHost().takeRecording();
    micTally->addSent(board().app->takeSentBlocks());
    micTally->add(recorded, micClock);
    const int64_t lostBlocks = board().app->lostBlocks();
    micTally->counts().lost += (lostBlocks - lostBlocksBefore) * kBlockFrames;
    lostBlocksBefore = lostBlocks;
    speakerTally->add(board().app->takeHeard(), speakerClock);
}

// Once an hour; prints a line for the person who watches.
void Soak::noteHour() {
    if (now() < found.begin + static_cast<Ns>(found.hours.size() + 1) * kHour) {
        return;
    }
    const Counts& speaker = speakerTally->countsOf(State::kCalm);
    const Counts& mic = micTally->countsOf(State::kCalm);
    found.hours.push_back({speaker.frames, mic.frames, speaker.wrong() + mic.wrong(),
                           found.outcomes.size(), holdings()});
    printf("hour %zu: %lld wrong, %lld kB\n", found.hours.size(),
           static_cast<long long>(found.hours.back().wrong),
           static_cast<long long>(found.hours.back().holdings.memory.privateKb));
    fflush(stdout);
}

Holdings Soak::holdings() {
    return {memoryOf(board().daemon.pid()),
            static_cast<int64_t>(descriptorsOf(board().daemon.pid()).size())};
}

void Soak::finish() {
    found.last = holdings();
    found.xruns = xruns();
    for (const Outcome& outcome : found.outcomes) {
        found.xruns -= outcome.disturbance.kind == DisturbanceKind::kMicXrun ||
                               outcome.disturbance.kind == DisturbanceKind::kSpeakerXrun
                           ? 1
                           : 0;
    }
    found.damage = board().findDamage();
}

void Soak::run() {
    comeUp();
    const Ns end = found.begin + plan.seconds * kSecond;
    stayCalm(now() + kLook);
    found.first = holdings();
    while (now() < end) {
        stayCalm(plan.calmSeconds > 0 ? std::min(end, now() + plan.calmSeconds * kSecond) : end);
        if (now() < end) {
            disturbOnce();
        }
    }
    finish();
}

}  // namespace board
