// SPDX-License-Identifier: Apache-2.0
// The host on the wire: the kernel's own host stack and sound driver, whose card is played to and
// recorded from as any program of the host does it. One thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/audio_host.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/wire.h"

namespace board {

class WireAudioHost : public AudioHost {
  public:
    // The gadget is of our driver, and on the wire.
    WireAudioHost(Wire* wire, const KernelGadget* gadget);

    void play(const Voice& voice) override;
    void stopPlaying() override;
    void record() override;
    void stopRecording() override;
    Samples takeRecording() override;
    StreamPosition position(const Direction& direction) override;
    int64_t preparedFrames() override;
    // On a board with one processor.
    std::optional<int64_t> daemonsFirstFrame() override;
    void setVolume(const Direction& direction, int volume) override;
    int volume(const Direction& direction) override;
    void setMute(const Direction& direction, bool mute) override;
    void setPpb(int64_t ppb) override;
    // The cable detector goes with the cable. The host's card has gone or come when they return.
    void unplug() override;
    void plug() override;
    std::vector<TimelineEntry> events(Ns since) override;

    // The data endpoint, in the wire's words.
    static const char* endpoint(const Direction& direction);

  private:
    void note(const std::string& what);
    int64_t bytesMoved(const Direction& direction) const;

    Wire* const wire;
    const KernelGadget* const gadget;
    std::unique_ptr<PcmPlayer> player;
    std::unique_ptr<PcmRecorder> recorder;
    int64_t bytesBefore[2] = {};  // the stream that is on, or was on last; speaker, microphone
    std::vector<TimelineEntry> done;
};

}  // namespace board
