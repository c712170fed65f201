// SPDX-License-Identifier: Apache-2.0
// The board with the simulated gadget and host. One thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/daemon_board.h"
#include "board/kit/host.h"

namespace board {

// The simulated host, by its commands.
class SimulatedAudioHost : public AudioHost {
  public:
    explicit SimulatedAudioHost(Host* host) : host(host) {}

    void play(const Voice& voice) override;
    void stopPlaying() override;
    void record() override;
    void stopRecording() override;
    Samples takeRecording() override { return host->takeRecording(); }
    StreamPosition position(const Direction& direction) override;
    int64_t preparedFrames() override { return 0; }
    std::optional<int64_t> daemonsFirstFrame() override;
    void setVolume(const Direction& direction, int volume) override;
    int volume(const Direction& direction) override;
    void setMute(const Direction& direction, bool mute) override;
    void setPpb(int64_t ppb) override;
    void unplug() override { host->command("unplug"); }
    void plug() override { host->command("plug"); }
    std::vector<TimelineEntry> events(Ns since) override;

  private:
    Host* const host;
    std::unique_ptr<HostPlayer> player;
};

class Board : public DaemonBoard {
  public:
    // Resets the host.
    explicit Board(const std::string& name, DaemonStarter starter = {});

    AudioHost& audioHost() override { return simulatedHost; }

    Host host;

  private:
    bool isSettled() override;

    SimulatedAudioHost simulatedHost{&host};
};

}  // namespace board
