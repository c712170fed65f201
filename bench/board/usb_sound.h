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

#include "board/kit/app.h"
#include "board/kit/clock.h"
#include "board/kit/sound.h"

namespace bench {

// Frames that were handed over together, from the first one on to the next block's.
using Block = board::HeardBlock;

// Whose program it is: an app's has the larger buffer.
enum class End { kHost, kApp };

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
    TimedPcm(const std::string& pcm, snd_pcm_stream_t direction, End end, size_t channels);
    void start();
    // Moves a block; a negative error starts the PCM again.
    virtual snd_pcm_sframes_t move() = 0;

    const End end;
    const size_t channels;
    snd_pcm_t* handle = nullptr;
    std::vector<Block> moved;

  private:
    void run();

    std::atomic<bool> stopping{false};
    std::thread thread;
};

// Plays the ramp on every channel: a host's program a block as soon as there is room for it, an app
// a block each 10 ms of the board's clock, 5 ms of silence ahead of the first, as one that writes
// into a FIFO.
class TimedPlayer : public TimedPcm {
  public:
    TimedPlayer(const std::string& pcm, End end, size_t channels);
    ~TimedPlayer() override { stop(); }

  private:
    snd_pcm_sframes_t move() override;

    board::Ns nextAt;  // an app's next block
    int64_t frame = 0;
};

class TimedRecorder : public TimedPcm {
  public:
    TimedRecorder(const std::string& pcm, End end, size_t channels);
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
