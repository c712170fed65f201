// SPDX-License-Identifier: Apache-2.0
// The USB host as its user has it: plays, records, moves volumes, and has a clock and a cable. One
// interface for the simulated host and for a real one on the wire. What fails throws. One thread.
// Also the two directions of sound, as each side names them.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/sound.h"

namespace board {

struct Direction {
    const char* name;  // the host's stream, in its commands and counters
    const char* pcm;   // the gadget card's, in the driver's events and fault points
    const char* tag;   // of the daemon's channel, in its log
    uint32_t channel;  // the channel's message type, {channel, 1} when it goes on
    uint32_t record;   // the control device's record of the host switching it
};

constexpr Direction kSpeakerDirection{"speaker", "capture", "UAFSNK", 1, 2};
constexpr Direction kMicDirection{"mic", "playback", "UAFSRC", 2, 3};

inline bool operator==(const Direction& a, const Direction& b) {
    return a.channel == b.channel;
}

inline void PrintTo(const Direction& direction, std::ostream* out) {
    *out << direction.name;
}

// How far a stream has got. Frames are counted from the first of what the host plays, or of what it
// records.
struct StreamPosition {
    int64_t frames;     // moved so far
    Ns at;              // when the newest of them did; frames move by the USB frame
    double nsPerFrame;  // of the host's clock as it is now
    // When frame `frame` moved; right if the clock's offset has not changed since.
    Ns timeOf(int64_t frame) const {
        const int64_t usbFrames = (frames - 1) / kFramesPerUsbFrame - frame / kFramesPerUsbFrame;
        return at -
               static_cast<Ns>(static_cast<double>(usbFrames * kFramesPerUsbFrame) * nsPerFrame);
    }
};

// Something that happened, in the words of the time line.
struct TimelineEntry {
    Ns at;
    std::string who;
    std::string what;
};

class AudioHost {
  public:
    virtual ~AudioHost() = default;

    // The speaker's stream goes on, with the voice from its frame 0 on, and off.
    virtual void play(const Voice& voice) = 0;
    virtual void stopPlaying() = 0;
    // The microphone's stream goes on, and off.
    virtual void record() = 0;
    virtual void stopRecording() = 0;
    // What was recorded since the last call; at least once in 40 s.
    virtual Samples takeRecording() = 0;

    // Of the stream that is on, or was on last.
    virtual StreamPosition position(const Direction& direction) = 0;
    // Of the microphone's frames, how many the driver has out of the card's ring before they are
    // due.
    virtual int64_t preparedFrames() = 0;
    // The recording's frame that is the first of the daemon's; nothing while it plays none.
    virtual std::optional<int64_t> daemonsFirstFrame() = 0;

    // In 1/256 dB.
    virtual void setVolume(const Direction& direction, int volume) = 0;
    virtual int volume(const Direction& direction) = 0;
    virtual void setMute(const Direction& direction, bool mute) = 0;

    // The clock's offset in parts per 10^9, positive is faster.
    virtual void setPpb(int64_t ppb) = 0;
    // Done when they return, on both ends of the cable.
    virtual void unplug() = 0;
    virtual void plug() = 0;

    // What the host has done from `since` on, and what driver and bus have noted.
    virtual std::vector<TimelineEntry> events(Ns since) = 0;
};

}  // namespace board
