// SPDX-License-Identifier: Apache-2.0
// The fixture of scenarios: a whole board, and the steps that many of them share.
#pragma once

#include <vector>

#include "tests/board/board_case.h"

namespace uafd {

class Scenario : public BoardCase {
  protected:
    static constexpr uint32_t kSpeaker = 1;  // the channels, as messages name them
    static constexpr uint32_t kMic = 2;

    void bothOn() {
        host.command("speaker on");
        host.command("mic on");
        ASSERT_TRUE(hasThreads(board::kStreamingThreads - missingThreads));
    }
    void bothOff() {
        host.command("speaker off");
        host.command("mic off");
    }

    // Delivers a raw record; the host's streams stay as they are.
    void record(uint32_t type, uint32_t data) {
        host.command("record " + std::to_string(type) + " " + std::to_string(data));
    }

    // The daemon uses only a small part of a second's processor time during an error.
    void expectNobodyBusy() {
        const board::Ns before = board::cpuOf(daemon.pid());
        board::sleepFor(board::kSecond);
        EXPECT_LT(board::cpuOf(daemon.pid()) - before, 200 * board::kMs);
    }

    // Whether the host hears the app within the limit.
    bool hostHears(board::Ns limit = 5 * board::kSecond) {
        host.takeRecording();
        return board::waitFor(
            [this] {
                const board::Samples recorded = host.takeRecording();
                return board::firstSound(recorded) < recorded.size();
            },
            limit);
    }
};

}  // namespace uafd
