// SPDX-License-Identifier: Apache-2.0
// The fixture of tests of the daemon with real USB: one board and one daemon a case, on the wire
// with the kernel's own host. What the app was told and what the daemon logged, and a proof that
// the daemon is whole.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/audio_host.h"
#include "board/kit/usb/wire_board.h"
#include "tests/board/board_case.h"

namespace uafd {

// The types of messages that have no direction of their own.
constexpr uint32_t kUsbState = 0;
constexpr uint32_t kSyncUp = 7;
// Those of a direction's settings.
constexpr uint32_t volumeOf(const board::Direction& direction) {
    return direction.channel + 2;
}
constexpr uint32_t muteOf(const board::Direction& direction) {
    return direction.channel + 4;
}

// The streams of the host's that are on.
struct Streams {
    const char* name;
    bool speaker;
    bool mic;

    bool has(const board::Direction& direction) const {
        return direction == board::kSpeakerDirection ? speaker : mic;
    }
    size_t threads() const { return board::kIdleThreads + (speaker ? 1U : 0U) + (mic ? 2U : 0U); }
};
constexpr Streams kNoStream{"Idle", false, false};
constexpr Streams kBothStreams{"Both", true, true};
constexpr Streams kEveryStreams[] = {
    kNoStream, {"Speaker", true, false}, {"Mic", false, true}, kBothStreams};

inline void PrintTo(const Streams& streams, std::ostream* out) {
    *out << streams.name;
}

class WireCase : public testing::Test, public board::WireBoard {
  protected:
    // The board's microphone service is only for the speaker's start, and costs time.
    explicit WireCase(bool withMicService = false)
        : WireBoard(caseName()), hasMicService(withMicService) {}

    // The daemon is up and has told the app all that it tells at its start; the app speaks noise.
    void SetUp() override;

    // Forgets what the app has been told and what the log says.
    void forget();
    // The data of the messages of a type since then, oldest first.
    std::vector<uint32_t> told(uint32_t type) const;
    // True as soon as the last message of the type has the data.
    bool waitUntilTold(uint32_t type, uint32_t data);
    int said(const std::string& text) { return daemon.count(text, logMark); }

    // The host's streams go on, the speaker with noise; they run when it returns.
    void switchOn(const Streams& streams);
    void switchOff();

    // Both streams, from off to off, bit for bit in either direction.
    void expectSound(board::Ns time);
    // The daemon waits for events, streams both ways bit for bit, waits again, and has logged
    // nothing that a daemon at work does not.
    void expectWhole();

  private:
    void emptyTheMicsFifo();
    void expectHeard();
    void expectNoUnknownLine();

    const bool hasMicService;
    size_t logMark = 0;
    size_t messageMark = 0;
    size_t linesSeen = 0;
};

}  // namespace uafd
