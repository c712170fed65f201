// SPDX-License-Identifier: Apache-2.0
// Programs that play on and record from a sound card without an end, each in a thread of its own:
// mono, 48 kHz, 16 bit. They wait for a card that stalls, and end with a card that goes or an xrun.
// One thread owns each.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include <alsa/asoundlib.h>

#include "board/kit/sound.h"

namespace board {

class PcmStream {
  public:
    virtual ~PcmStream();
    PcmStream(const PcmStream&) = delete;
    PcmStream& operator=(const PcmStream&) = delete;

    // The negative error that has ended the stream, 0 while it runs.
    int error() const { return endedBy; }
    bool isOver() const { return endedBy != 0; }
    // Frames moved so far, to or from the card.
    int64_t frames() const { return moved; }
    // Ends the stream and closes the card. Does nothing the second time.
    void stop();

  protected:
    // The card is open and set up; throws when that fails. The stream begins with start().
    PcmStream(const std::string& pcm, snd_pcm_stream_t direction);
    void start();
    // Moves what can be moved. Returns the frames, or a negative error.
    virtual snd_pcm_sframes_t move(snd_pcm_t* pcm) = 0;

  private:
    void setUp(snd_pcm_stream_t direction);
    void run();

    snd_pcm_t* handle = nullptr;
    std::atomic<int> endedBy{0};
    std::atomic<int64_t> moved{0};
    std::atomic<bool> stopping{false};
    std::thread thread;
};

class PcmPlayer : public PcmStream {
  public:
    // Plays `voice` from frame 0 on.
    PcmPlayer(const std::string& pcm, Voice voice);
    ~PcmPlayer() override { stop(); }

  private:
    snd_pcm_sframes_t move(snd_pcm_t* pcm) override;

    const Voice source;
    Samples next;  // what is to be written next
    int64_t rendered = 0;
};

class PcmRecorder : public PcmStream {
  public:
    explicit PcmRecorder(const std::string& pcm);
    ~PcmRecorder() override { stop(); }

    // What was recorded so far, or since the last take(); all of it after stop().
    Samples recording() const;
    Samples take();

  private:
    snd_pcm_sframes_t move(snd_pcm_t* pcm) override;

    mutable std::mutex mutex;
    Samples recorded;  // under mutex
};

}  // namespace board
