// SPDX-License-Identifier: Apache-2.0
// Programs that play a ramp on a sound card and record from one, with the time of each block: the
// USB host's, and the app's where it uses a loopback card. And what became of the ramp on its way.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <alsa/asoundlib.h>

#include "board/kit/clock.h"
#include "board/kit/sound.h"

namespace bench {

// Frames that were handed over together, from `firstFrame` on to the next block's.
struct Block {
    board::Ns at;
    int64_t firstFrame;
};

struct Buffers {
    int64_t periodFrames;
    int64_t frames;
};

// An open PCM of 16 bit at 48 kHz, moved by a thread of its own until it is destroyed. An xrun
// starts it again. Throws when the card refuses. One thread owns it.
class TimedPcm {
  public:
    TimedPcm(const TimedPcm&) = delete;
    TimedPcm& operator=(const TimedPcm&) = delete;
    virtual ~TimedPcm() = default;

    // What has moved so far; only after stop().
    const std::vector<Block>& blocks() const { return moved; }
    void stop();

  protected:
    TimedPcm(const std::string& pcm, snd_pcm_stream_t direction, Buffers buffers, size_t channels);
    void start();
    // Moves a block; a negative error starts the PCM again.
    virtual snd_pcm_sframes_t move() = 0;

    const Buffers buffers;
    const size_t channels;
    snd_pcm_t* handle = nullptr;
    std::vector<Block> moved;

  private:
    void run();

    std::atomic<bool> stopping{false};
    std::thread thread;
};

// Plays the ramp on every channel, a block as soon as there is room for it, or at the board's clock
// as the app does it that writes into a FIFO.
class TimedPlayer : public TimedPcm {
  public:
    // A host's.
    TimedPlayer(const std::string& pcm, size_t channels);
    // An app's: a block each 10 ms, 5 ms of silence ahead of the first.
    explicit TimedPlayer(const std::string& pcm);
    ~TimedPlayer() override { stop(); }

  private:
    snd_pcm_sframes_t move() override;
    void writeSilence();

    const bool isApp;
    const int64_t blockFrames;
    board::Ns nextAt = 0;
    int64_t frame = 0;
};

class TimedRecorder : public TimedPcm {
  public:
    // A host's, and an app's.
    TimedRecorder(const std::string& pcm, size_t channels);
    explicit TimedRecorder(const std::string& pcm);
    ~TimedRecorder() override { stop(); }

    // The first channel; only after stop().
    const board::Samples& samples() const { return recorded; }

  private:
    snd_pcm_sframes_t move() override;

    board::Samples recorded;
};

// What one end heard of the ramp that the other played: samples and, by their index, when they
// came.
struct HeardRamp {
    board::Samples samples;
    std::vector<Block> blocks;
};

struct Passage {
    int64_t soundingFrames = 0;
    // Places where sound is missing or repeated, or silence begins.
    int64_t breaks = 0;
    // From the moment at which a frame was handed over to the moment at which it was received,
    // for one frame in 48.
    std::vector<board::Ns> latencies;
};

// Of what was received in [from, to). Frames that are under way for more than 1.3 s are not told
// from later ones.
Passage passageOf(const std::vector<Block>& played, const HeardRamp& heard, board::Ns from,
                  board::Ns to);

}  // namespace bench
