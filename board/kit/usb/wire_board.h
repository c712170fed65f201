// SPDX-License-Identifier: Apache-2.0
// The board with real USB (board/start --usb): the daemon on our gadget driver, with the kernel's
// own host on the other end of the wire. One thread at a time.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/daemon_board.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/wire.h"

namespace board {

// The host on the wire: the kernel's own host stack and sound driver, whose card is played to and
// recorded from as any program of the host does it.
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

class WireBoard : public DaemonBoard {
  public:
    // The board's own card and its cable detector are there, the wire is as after loading, a gadget
    // with our driver's function is bound and the host has its card. `attributes` are the
    // function's.
    explicit WireBoard(const std::string& name,
                       const std::map<std::string, std::string>& attributes = {},
                       DaemonStarter starter = {});
    // Ends the daemon before its gadget goes.
    ~WireBoard() override;

    AudioHost& audioHost() override { return host; }

    // The controllers' module goes, whatever runs on the wire, which nobody may use before it is
    // there again. The gadget waits for a controller, and binds to it as soon as there is one.
    void unloadController();
    void loadController();
    // The driver's module goes and comes. No daemon may run; the gadget is not bound afterwards.
    void reloadDriver();

    Wire wire;
    KernelGadget gadget;
    WireAudioHost host{&wire, &gadget};

  private:
    bool isSettled() override;
};

}  // namespace board
