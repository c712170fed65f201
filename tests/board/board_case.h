// SPDX-License-Identifier: Apache-2.0
// The fixtures of tests that run the whole board: each case has a board and a daemon of its own,
// whose log is named after the case; and the steps that many of them share.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/board.h"

namespace uafd {

// The name of the test that runs, as the name of a file.
inline std::string caseName() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "." + info->name();
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

class BoardCase : public testing::Test, public board::Board {
  protected:
    static constexpr uint32_t kSpeaker = 1;  // the channels, as messages name them
    static constexpr uint32_t kMic = 2;

    BoardCase() : Board(caseName()) {}

    // The daemon and the board's microphone service; the app is a test's own.
    void startWithoutApp() {
        micService = std::make_unique<board::MicService>();
        startDaemon();
    }
    // The host's streams; bothOn() returns once both run.
    void switchBoth(bool on) {
        host.command(on ? "speaker on" : "speaker off");
        host.command(on ? "mic on" : "mic off");
    }
    void bothOn() {
        switchBoth(true);
        ASSERT_TRUE(hasThreads(board::kStreamingThreads - missingThreads));
    }
    void bothOff() { switchBoth(false); }
    // Queues raw records with data that counts up; the host's streams stay as they are.
    void queue(uint32_t type, uint32_t data, int count = 1) {
        host.command("record " + std::to_string(type) + " " + std::to_string(data) + " " +
                     std::to_string(count));
    }

    // Starts a new count of log lines and messages.
    void look() {
        logMark = daemon.mark();
        messageMark = app ? app->messages().size() : 0;
    }
    int said(const std::string& text) { return daemon.count(text, logMark); }
    std::vector<board::Message> told() const { return app->messageValues(messageMark); }
    // The app must get exactly these messages, in this order.
    void expectTold(const std::vector<board::Message>& wanted) {
        board::waitFor([&] { return told().size() >= wanted.size(); }, board::kSecond);
        board::sleepFor(20 * board::kMs);  // for a message too many
        EXPECT_EQ(told(), wanted);
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
    // What the app heard is the noise that the host plays, from some frame on, none missing.
    static void expectNoise(const board::Samples& heard) {
        const int64_t first = board::find(heard, 0, board::render(board::noise, 0, board::kRate));
        ASSERT_GE(first, 0);
        const auto size = static_cast<int64_t>(heard.size());
        const board::Samples played = board::render(board::noise, first, size);
        EXPECT_EQ(std::mismatch(heard.begin(), heard.end(), played.begin()).first - heard.begin(),
                  size);
    }
    int64_t xruns() const { return host.counter("capture.xruns") + host.counter("playback.xruns"); }
    // During an error the daemon uses only a small part of a second's processor time.
    void expectNobodyBusy() {
        const board::Ns before = board::cpuOf(daemon.pid());
        board::sleepFor(board::kSecond);
        EXPECT_LT(board::cpuOf(daemon.pid()) - before, 200 * board::kMs);
    }

  private:
    size_t logMark = 0;
    size_t messageMark = 0;
};

// A case that ends by proving the daemon whole.
class Scenario : public BoardCase {
  protected:
    void TearDown() override {
        if (!HasFatalFailure()) {
            EXPECT_EQ(findDamage(), "");
        }
    }
};

}  // namespace uafd
