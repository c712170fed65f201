// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/tally.h"

#include <algorithm>
#include <utility>

namespace board {
namespace {

constexpr Ns kMinute = 60 * kSecond;
constexpr size_t kWrongMax = 20;       // whose times are kept
constexpr int64_t kBlockFrames = 480;  // of the app's writes

int64_t floorDivide(int64_t a, int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

}  // namespace

void Latencies::add(Ns latency) {
    const auto bin = std::clamp<Ns>(latency / kBin, 0, kBins - 1);
    ++bins[static_cast<size_t>(bin)];
    smallestSeen = total == 0 ? latency : std::min(smallestSeen, latency);
    largestSeen = total == 0 ? latency : std::max(largestSeen, latency);
    ++total;
}

void Latencies::clear() {
    *this = Latencies();
}

Ns Latencies::quantile(double share) const {
    const auto wanted = static_cast<int64_t>(share * static_cast<double>(total));
    int64_t sum = 0;
    for (size_t bin = 0; bin < kBins; ++bin) {
        sum += bins[bin];
        if (sum > wanted) {
            return static_cast<Ns>(bin) * kBin + kBin / 2;
        }
    }
    return largestSeen;
}

std::string Latencies::text() const {
    std::string text;
    for (size_t bin = 0; bin < kBins; ++bin) {
        if (bins[bin] > 0) {
            text += " " + std::to_string(bin) + ":" + std::to_string(bins[bin]);
        }
    }
    return text;
}

StreamClock::StreamClock(int64_t frames, Ns lastAt, double nsPerFrame)
    : frames(frames), lastAt(lastAt), usbFrameNs(nsPerFrame * kFramesPerUsbFrame) {}

Ns StreamClock::timeOf(int64_t frame) const {
    const int64_t usbFrames = floorDivide(frame - frames, kFramesPerUsbFrame) + 1;
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

void SpeakerTally::add(const Heard& heard, const StreamClock& clock) {
    const auto size = static_cast<int64_t>(heard.left.size());
    counts().clicks += clicks.add(heard.left.data(), size);
    counts().unexplained += heard.unequalFrames;
    for (size_t i = 0; i < heard.blocks.size(); ++i) {
        const HeardBlock& block = heard.blocks[i];
        const int64_t begin = block.firstFrame - heard.blocks.front().firstFrame;
        const int64_t end = i + 1 < heard.blocks.size()
                                ? heard.blocks[i + 1].firstFrame - heard.blocks.front().firstFrame
                                : size;
        const int64_t first = next;
        if (follow(heard.left.data() + begin, end - begin)) {
            note(block.at, block.at - clock.timeOf(queueBegin + first));
        } else {
            noteWrong(block.at);
        }
    }
}

bool SpeakerTally::follow(const int16_t* samples, int64_t count) {
    bool inPlace = true;
    for (int64_t i = 0; i < count;) {
        const int16_t* wanted = tone().from(next);
        const int64_t length = std::min(count - i, Tone::kStretch);
        const int64_t same = std::mismatch(wanted, wanted + length, samples + i).first - wanted;
        counts().frames += same;
        next += same;
        i += same;
        if (same < length) {
            inPlace = false;
            i += findAgain(samples + i, count - i);
        }
    }
    return inPlace;
}

int64_t SpeakerTally::findAgain(const int16_t* samples, int64_t count) {
    // The tone never has two zeros in a row.
    const int64_t zeros =
        std::find_if(samples, samples + count, [](int16_t s) { return s != 0; }) - samples;
    if (zeros > 1 || zeros == count) {
        counts().silent += zeros;
        return zeros;
    }
    int64_t frames = 0;
    if (!tone().displacement(next, samples, count, &frames)) {
        ++counts().unexplained;
        return 1;
    }
    counts().lost += std::max<int64_t>(frames, 0);
    counts().repeated += std::max<int64_t>(-frames, 0);
    next += frames;
    return 0;
}

MicTally::MicTally(Window window, int64_t recordingBegin, std::function<Ns(int64_t)> timeOfFrame)
    : Tally(window),
      timeOfFrame(std::move(timeOfFrame)),
      streamAt(recordingBegin),
      recordingBegin(recordingBegin) {
    restart(recordingBegin);
}

void MicTally::restart(int64_t begin) {
    consumedBefore += recording ? recording->consumed() : 0;
    recordingBegin = begin;
    recording = std::make_unique<MicRecording>(
        [this](int64_t sample) { return tone().at(voiceFrameOf(consumedBefore + sample)); });
}

void MicTally::addSent(const std::vector<SentBlock>& blocks) {
    for (const SentBlock& block : blocks) {
        if (runs.empty() || voiceFrameOf(sentSamples) != block.firstFrame) {
            runs.push_back({sentSamples, block.firstFrame});
        }
        sentSamples += kBlockFrames;
    }
}

int64_t MicTally::voiceFrameOf(int64_t sample) const {
    auto run = runs.rbegin();
    while (run != runs.rend() && run->sample > sample) {
        ++run;
    }
    return run == runs.rend() ? 0 : run->voiceFrame + sample - run->sample;
}

void MicTally::add(Samples recorded, const StreamClock& clock) {
    const auto size = static_cast<int64_t>(recorded.size());
    counts().clicks += clicks.add(recorded.data(), size);
    const int64_t left = std::clamp<int64_t>(recordingBegin - streamAt, 0, size);
    streamAt += size;
    recorded.erase(recorded.begin(), recorded.begin() + static_cast<std::ptrdiff_t>(left));
    for (const MicFrame& frame : recording->add(recorded)) {
        addFrame(frame, clock);
    }
}

void MicTally::addFrame(const MicFrame& frame, const StreamClock& clock) {
    const Ns at = clock.timeOf(recordingBegin + frame.recordedAt + frame.lead);
    const bool again = frame.kind == FrameKind::kUnexplained && frame.skipped > 0;
    const bool inPlace = frame.kind == FrameKind::kCopied || frame.kind == FrameKind::kStretched ||
                         frame.kind == FrameKind::kSqueezed;
    counts().gained += frame.gain();
    if (inPlace || again) {
        countSkipped(frame.skipped);
        counts().frames += MicRecording::kFrame - frame.lead;
        counts().silent += frame.lead;
        note(at, at - timeOfFrame(voiceFrameOf(consumedBefore + frame.sentAt)));
    } else if (frame.kind == FrameKind::kUnexplained) {
        counts().unexplained += MicRecording::kFrame;
        unexplained += MicRecording::kFrame;
    } else {
        ++counts().underruns;
        counts().silent += frame.kind == FrameKind::kSilent ? MicRecording::kFrame : 0;
    }
    if (!inPlace || frame.lead > 0) {
        noteWrong(at);
    }
}

// The sound jumps within a frame: that frame is not explained, but what it consumed is not lost.
void MicTally::countSkipped(int64_t samples) {
    const int64_t missing = samples - unexplained;
    unexplained = 0;
    if (missing > Tone::kPlaces / 2 || missing < 0) {
        counts().repeated += missing < 0 ? -missing : Tone::kPlaces - missing;
        return;
    }
    counts().lost += missing;
    // Latency control may have gained or lost a sample in this frame, so a dropped block leaves a
    // gap that differs from a block by one.
    counts().overruns += (missing + kBlockFrames / 2) / kBlockFrames;
}

}  // namespace board
