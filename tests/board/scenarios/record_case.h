// SPDX-License-Identifier: Apache-2.0
// The fixture of scenarios of the gadget control device: event records by name, and what the daemon
// logs and sends after them.
#pragma once

#include <string>
#include <vector>

#include "tests/board/board_case.h"

namespace uafd {

class RecordCase : public BoardCase {
  protected:
    enum Type : uint32_t {
        kBind,
        kUnbind,
        kSpeakerOn,  // or off, by the data
        kMicOn,
        kSpeakerVolume,
        kMicVolume,
        kSpeakerMute,
        kMicMute,
    };
    static constexpr uint32_t kSpeaker = 1;  // the channels, as messages name them
    static constexpr uint32_t kMic = 2;

    // Queues raw records with data that counts up; the host's streams stay as they are.
    void queue(uint32_t type, uint32_t data, int count = 1) {
        host.command("record " + std::to_string(type) + " " + std::to_string(data) + " " +
                     std::to_string(count));
    }
    // Starts a new count of log lines and messages.
    void look() {
        logMark = daemon.mark();
        messageMark = app->messages().size();
    }
    // Has one record handled, with a new count from that moment.
    void handle(uint32_t type, uint32_t data) {
        look();
        queue(type, data);
        ASSERT_TRUE(settle());
    }

    int said(const std::string& text) { return daemon.count(text, logMark); }
    std::vector<board::Message> told() const { return app->messageValues(messageMark); }
    // The app must get exactly these messages, in this order.
    void expectTold(const std::vector<board::Message>& wanted) {
        board::waitFor([&] { return told().size() >= wanted.size(); }, board::kSecond);
        board::sleepFor(20 * board::kMs);  // for a message too many
        EXPECT_EQ(told(), wanted);
    }
    // How many messages in the daemon's queue were overwritten because others came too fast.
    int overwritten() { return said("queueMsg: overwriting msg: <0x#:0x#> -> <0x#:0x#>"); }

    void bothOff() {
        host.command("speaker off");
        host.command("mic off");
        ASSERT_TRUE(hasThreads(board::kIdleThreads));
    }

  private:
    size_t logMark = 0;
    size_t messageMark = 0;
};

}  // namespace uafd
