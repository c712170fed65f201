// SPDX-License-Identifier: Apache-2.0
// What a program recorded from the daemon or plays to it: stereo, 16 bits, 48000 Hz, in a file. Of
// what was recorded both channels are the host's. One thread.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/files.h"
#include "board/kit/host.h"
#include "board/kit/mic_recording.h"
#include "board/kit/sound.h"

namespace uafd {

constexpr size_t kWavHeader = 44;

// The same in each channel.
inline void writeRaw(const std::string& path, const board::Samples& samples, int channels = 2) {
    board::Samples all;
    for (const int16_t sample : samples) {
        all.insert(all.end(), static_cast<size_t>(channels), sample);
    }
    board::put(path, {reinterpret_cast<const char*>(all.data()), all.size() * sizeof all[0]});
}

// Both channels, after a header of so many bytes.
inline board::Samples readRaw(const std::string& path, size_t header = 0) {
    const std::string bytes = board::contents(path);
    const size_t used = std::min(header, bytes.size());
    board::Samples samples((bytes.size() - used) / sizeof(int16_t));
    std::copy_n(bytes.data() + used, samples.size() * sizeof(int16_t),
                reinterpret_cast<char*>(samples.data()));
    return samples;
}

// The left channel. The right one must be the same.
inline board::Samples heardIn(const std::string& path, size_t header = 0) {
    const board::Samples both = readRaw(path, header);
    board::Samples left;
    size_t different = 0;
    for (size_t i = 0; i + 1 < both.size(); i += 2) {
        different += both[i] != both[i + 1] ? 1 : 0;
        left.push_back(both[i]);
    }
    EXPECT_EQ(different, 0U) << path;
    return left;
}

// A part of a recording without silence.
struct Stretch {
    size_t from;
    size_t frames;
    size_t end() const { return from + frames; }
};

// In their order; silence is at least 10 ms long.
inline std::vector<Stretch> stretchesOf(const board::Samples& heard) {
    constexpr int kSilenceFrames = 480;
    std::vector<Stretch> found;
    int zeros = kSilenceFrames;
    for (size_t i = 0; i < heard.size(); ++i) {
        if (heard[i] != 0 && zeros >= kSilenceFrames) {
            found.push_back({i, 0});
        }
        zeros = heard[i] == 0 ? zeros + 1 : 0;
        if (!found.empty() && heard[i] != 0) {
            found.back().frames = i - found.back().from + 1;
        }
    }
    return found;
}

// What a program has played the host has recorded, since its stream went on: nothing between the
// samples, and none missing. A program may write so unevenly, or in such a phase, that the daemon's
// latency control goes on stretching and squeezing periods for as long as it plays.
inline void expectAllOf(const board::Samples& played, board::Host* host) {
    using board::FrameKind;
    const board::Samples recorded = host->takeRecording();
    const auto counters = host->counters();
    const int64_t first = counters.at("mic.first_frames") - counters.at("mic.on_frames");
    ASSERT_GT(static_cast<int64_t>(recorded.size()), first);
    const auto end = static_cast<int64_t>(played.size());
    board::MicRecording explained(
        [&](int64_t i) { return i < end ? played[static_cast<size_t>(i)] : int16_t{0}; });
    for (const board::MicFrame& frame : explained.add({recorded.begin() + first, recorded.end()})) {
        if (frame.sentAt > 0 && frame.sentAt < end) {
            EXPECT_TRUE(frame.kind == FrameKind::kCopied || frame.gain() != 0)
                << "at " << frame.sentAt;
        }
    }
    EXPECT_GE(explained.consumed(), end);
}

}  // namespace uafd
