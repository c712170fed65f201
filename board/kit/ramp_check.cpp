// SPDX-License-Identifier: Apache-2.0
#include "board/kit/ramp_check.h"

#include <algorithm>
#include <cstdlib>

namespace board {
namespace {

constexpr int64_t kAround = 4800;  // how far off a section continues the one before
constexpr int64_t kNames = 65536;  // frames that the ramp's values tell apart
constexpr size_t kShortest = 4;    // samples of a section

// Consecutive samples that follow the ramp, in the ramp's values.
struct Run {
    size_t at;
    size_t size;
    int64_t advance;  // ramp frames from the first to the last
};

// When stretched or squeezed, the ramp advances by a little less or more than one per sample,
// rounded: `slack` is then 1.
bool follows(const Samples& samples, size_t i, int slack, int16_t* expected) {
    constexpr int wrapNear = 32765;
    const int off = static_cast<int16_t>(samples[i] - *expected);
    if (std::abs(off) <= slack && (off >= 0 || i < 2 || samples[i - 1] != samples[i - 2])) {
        *expected = samples[i];
        return true;
    }
    // Where the ramp wraps from its highest to its lowest value, an interpolated sample can have
    // any value.
    return slack > 0 && std::abs(static_cast<int>(*expected)) >= wrapNear &&
           i + 1 < samples.size() &&
           std::abs(static_cast<int16_t>(samples[i + 1] - *expected)) <= 2;
}

Run followFrom(const Samples& samples, size_t at, int slack) {
    Run run{at, 1, 0};
    int16_t value = samples[at];
    for (size_t i = at + 1; i < samples.size(); ++i) {
        auto expected = static_cast<int16_t>(static_cast<uint16_t>(value) + 1U);
        if (!follows(samples, i, slack, &expected)) {
            break;
        }
        run.advance += static_cast<int16_t>(expected - value);
        value = expected;
        ++run.size;
    }
    return run;
}

std::vector<Run> runsOf(const Samples& samples, int slack) {
    std::vector<Run> runs;
    for (size_t i = 0; i < samples.size();) {
        if (samples[i] == 0 && (i + 1 == samples.size() || samples[i + 1] == 0)) {
            ++i;
            continue;
        }
        const Run run = followFrom(samples, i, slack);
        if (run.size >= kShortest) {
            runs.push_back(run);
            i += run.size;
        } else {
            ++i;
        }
    }
    return runs;
}

// The last point at or before the quantity; the first point for a quantity before all of them.
const Point& pointOf(const std::vector<Point>& points, int64_t value, int64_t Point::*quantity) {
    const auto after = std::upper_bound(
        points.begin(), points.end(), value,
        [quantity](int64_t wanted, const Point& point) { return wanted < point.*quantity; });
    return after == points.begin() ? *after : *(after - 1);
}

Ns framesTime(int64_t frames) {
    return frames * kSecond / kRate;
}

// Adds the USB frames up to `frames` that are not among the points yet. The host's clock moves one
// each millisecond, the last at `lastAt`.
void addUsbFrames(std::vector<Point>* points, int64_t frames, Ns lastAt) {
    const int64_t count = frames / kFramesPerUsbFrame;
    for (auto i = static_cast<int64_t>(points->size()); i < count; ++i) {
        points->push_back({lastAt - (count - 1 - i) * kMs, i * kFramesPerUsbFrame});
    }
}

}  // namespace

RampCheck::RampCheck(Board* board, const Direction& direction)
    : board(board), direction(direction) {
    board->host.command(std::string("flush ") + direction.name);
    if (isSpeaker()) {
        player = std::make_unique<HostPlayer>(ramp);
        player->fill();
        board->app->takeHeard();
    } else {
        board->app->speak(ramp);
        board->host.takeRecording();
    }
}

void RampCheck::collect() {
    if (isSpeaker()) {
        collectHeard();
    } else {
        collectRecorded();
    }
}

void RampCheck::collectHeard() {
    const Heard heard = board->app->takeHeard();
    const auto base = static_cast<int64_t>(heardSamples.size());
    for (const HeardBlock& block : heard.blocks) {
        heardPoints.push_back({block.at, base + block.firstFrame - heard.blocks[0].firstFrame});
    }
    heardSamples.insert(heardSamples.end(), heard.left.begin(), heard.left.end());
    const auto values = board->host.counters();
    if (values.at("speaker.first_ns") != 0) {
        addUsbFrames(&sentPoints, values.at("speaker.frames") - values.at("speaker.first_frames"),
                     values.at("speaker.last_ns"));
    }
}

void RampCheck::collectRecorded() {
    const Samples recorded = board->host.takeRecording();
    heardSamples.insert(heardSamples.end(), recorded.begin(), recorded.end());
    const auto values = board->host.counters();
    addUsbFrames(&heardPoints, values.at("mic.frames") - values.at("mic.on_frames"),
                 values.at("mic.last_ns"));
    sentPoints.clear();
    for (const SentBlock& block : board->app->sentBlocks()) {
        sentPoints.push_back({block.at, block.firstFrame});
    }
}

Ns RampCheck::sentAt(int64_t frame) const {
    const Point& point = pointOf(sentPoints, frame, &Point::frame);
    // The app writes blocks; its frames count as evenly spaced in time.
    return isSpeaker() ? point.at : point.at + framesTime(frame - point.frame);
}

int64_t RampCheck::frameSentBy(Ns at) const {
    const Point* const begin = sentPoints.data();
    const Point& point = pointOf(sentPoints, at, &Point::at);
    return &point + 1 < begin + sentPoints.size() ? (&point + 1)->frame : point.frame;
}

// The frame that a value heard at this time stands for: the one that continues the section which
// ended with `previous`, or else the latest one sent by then.
int64_t RampCheck::frameNamed(int16_t value, Ns heardAt, int64_t previous) const {
    const int64_t skipped = static_cast<int16_t>(value - ramp(previous));
    if (previous >= 0 && std::abs(skipped) <= kAround) {
        return previous + skipped;
    }
    const int64_t latest = frameSentBy(heardAt);
    return latest - static_cast<uint16_t>(ramp(latest) - value) % kNames;
}

const std::vector<Section>& RampCheck::sections() {
    if (analysed == heardSamples.size()) {
        return foundSections;
    }
    analysed = heardSamples.size();
    foundSections.clear();
    int64_t previous = -1;
    for (const Run& run : runsOf(heardSamples, isSpeaker() ? 0 : 1)) {
        const auto at = static_cast<int64_t>(run.at);
        const auto size = static_cast<int64_t>(run.size);
        const Ns begin = pointOf(heardPoints, at, &Point::frame).at;
        const Ns end = pointOf(heardPoints, at + size - 1, &Point::frame).at;
        const int64_t first = frameNamed(heardSamples[run.at], begin, previous);
        previous = first + run.advance;
        foundSections.push_back({at, size, first, previous, begin, end});
    }
    return foundSections;
}

std::vector<Break> RampCheck::breaks() {
    std::vector<Break> breaks;
    const std::vector<Section>& all = sections();
    for (size_t i = 1; i < all.size(); ++i) {
        const Section& before = all[i - 1];
        const int64_t silent = all[i].at - before.at - before.frames;
        breaks.push_back({before.end, silent, all[i].first - before.last - 1});
    }
    return breaks;
}

std::vector<Break> RampCheck::losses() {
    std::vector<Break> losses = breaks();
    const auto isWhole = [](const Break& gap) { return gap.lost == 0 || gap.lost == 1; };
    losses.erase(std::remove_if(losses.begin(), losses.end(), isWhole), losses.end());
    return losses;
}

int64_t RampCheck::lost() {
    int64_t lost = 0;
    for (const Break& gap : losses()) {
        lost += gap.lost;
    }
    return lost;
}

std::vector<Ns> RampCheck::latencies(const Section& section, Ns from, Ns to) const {
    std::vector<Ns> latencies;
    auto point = std::lower_bound(heardPoints.begin(), heardPoints.end(), section.at,
                                  [](const Point& p, int64_t at) { return p.frame < at; });
    for (; point != heardPoints.end() && point->frame < section.at + section.frames; ++point) {
        if (point->at >= from && point->at < to) {
            const int64_t index = point->frame - section.at;
            const int64_t frames = section.last - section.first + 1;
            latencies.push_back(point->at -
                                sentAt(section.first + index * frames / section.frames));
        }
    }
    return latencies;
}

Spread RampCheck::latency(Ns from, Ns to) {
    std::vector<Ns> all;
    for (const Section& section : sections()) {
        if (section.end >= from && section.begin < to) {
            const std::vector<Ns> some = latencies(section, from, to);
            all.insert(all.end(), some.begin(), some.end());
        }
    }
    return spreadOf(all);
}

}  // namespace board
