// SPDX-License-Identifier: Apache-2.0
// The gadget's sound card disappears and returns, at the same index or another, in every state of
// both channels: the streams end, and the host's next streams find the card.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/audio_host.h"
#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

enum class State { kStopped, kRunning, kStopping, kSuspended };
constexpr State kStates[] = {State::kStopped, State::kRunning, State::kStopping, State::kSuspended};

const char* nameOf(State state) {
    static const char* const kNames[] = {"stopped", "running", "stopping", "suspended"};
    return kNames[static_cast<size_t>(state)];
}

// How the card disappears and returns.
enum class Return {
    kUntold,     // at the same index, without a record
    kElsewhere,  // with the gadget's unbinding and binding
    kTold,       // at another index, with the record of the binding alone
};
constexpr Return kReturns[] = {Return::kUntold, Return::kElsewhere, Return::kTold};

// An on event that came too late to cancel a stop.
constexpr char kAlert[] =
    "ALERT! This should be impossible and can cause inconsistencies in this channel's state.";

class CardRemoval : public Scenario {
  protected:
    void SetUp() override {
        start();
        app->speak(noise);
    }

    void command(const Direction& direction, const std::string& text) {
        host.command(std::string(direction.name) + " " + text);
    }

    // prepare() takes every step into the state but the last; enter() takes the last one, so that
    // several directions can take it at the same time.
    void prepare(const Direction& direction, State state) {
        if (state != State::kStopped) {
            const Ns before = now();
            command(direction, "on");
            ASSERT_TRUE(host.waitForEvents(std::string(direction.pcm) + " start 0", before));
        }
        if (state == State::kSuspended) {
            host.command(std::string("fault ") + direction.pcm + ".resume 11 times=0");
        }
    }
    void enter(const Direction& direction, State state) {
        if (state == State::kStopping) {
            queue(direction.record, 0);
        } else if (state == State::kSuspended) {
            host.command(std::string("suspend ") + direction.name);
        }
    }
    void enterBoth(State speaker, State mic) {
        prepare(kSpeakerDirection, speaker);
        prepare(kMicDirection, mic);
        sleepFor(50 * kMs);
        enter(kSpeakerDirection, speaker);
        enter(kMicDirection, mic);
        // Some moment in the passes that a stop waits for.
        sleepFor(++cells * 3 % 14 * kMs);
    }

    void removeAndAdd(Return how) {
        const int other = cardIndex == 1 ? 3 : 1;
        if (how == Return::kElsewhere) {
            host.command("unbind");
        } else {
            host.command("card remove");
        }
        sleepFor(20 * kMs);
        host.command("fault clear");
        cardIndex = how == Return::kUntold ? cardIndex : other;
        const std::string index = std::to_string(cardIndex);
        host.command((how == Return::kElsewhere ? "bind " : "card add ") + index);
        if (how == Return::kTold) {
            host.command("bind");
        }
    }

    void stopBoth() {
        bothOff();
        EXPECT_TRUE(hasThreads(kIdleThreads));
    }
    // Both directions carry sound.
    void expectSound() {
        ASSERT_TRUE(settle());
        host.command("flush speaker");
        const HostPlayer player(noise, kRate / 2);
        ASSERT_TRUE(player.fill(kRate / 2));
        app->takeHeard();
        host.takeRecording();
        switchBoth(true);
        const auto sounds = [](const Samples& samples) {
            return firstSound(samples) < samples.size();
        };
        EXPECT_TRUE(waitFor([&] { return sounds(app->takeHeard().left); }));
        EXPECT_TRUE(waitFor([&] { return sounds(host.takeRecording()); }));
        stopBoth();
    }
    // The app is told on and off alternately, ending with off.
    void expectTold(const Direction& direction, size_t messagesBefore) {
        uint32_t on = 0;
        for (const Message& message : app->messageValues(messagesBefore)) {
            if (message.type == direction.channel) {
                EXPECT_EQ(message.data, 1 - on) << direction.name;
                on = message.data;
            }
        }
        EXPECT_EQ(on, 0U) << direction.name;
    }

  private:
    int cardIndex = 1;
    int cells = 0;
};

class CardRemovalWithSpeaker : public CardRemoval, public testing::WithParamInterface<State> {};

TEST_P(CardRemovalWithSpeaker, AndMicrophoneInEachState) {
    for (const Return how : kReturns) {
        for (const State mic : kStates) {
            SCOPED_TRACE(std::string(nameOf(mic)) + " " + std::to_string(static_cast<int>(how)));
            const size_t messages = app->messages().size();
            ASSERT_NO_FATAL_FAILURE(enterBoth(GetParam(), mic));
            removeAndAdd(how);
            stopBoth();
            expectTold(kSpeakerDirection, messages);
            expectTold(kMicDirection, messages);
            ASSERT_NO_FATAL_FAILURE(expectSound());
        }
    }
    EXPECT_EQ(daemon.count(kAlert), 0);
}

INSTANTIATE_TEST_SUITE_P(State, CardRemovalWithSpeaker, testing::ValuesIn(kStates),
                         [](const auto& info) { return std::string(nameOf(info.param)); });

// The card disappears in the middle of a start, which then fails; the other channel is in each
// state.
TEST_F(CardRemoval, WhileAChannelStarts) {
    for (const bool speaker : {true, false}) {
        const Direction direction = speaker ? kSpeakerDirection : kMicDirection;
        const Direction other = speaker ? kMicDirection : kSpeakerDirection;
        for (const State state : kStates) {
            SCOPED_TRACE(std::string(direction.name) + " " + nameOf(state));
            const size_t mark = daemon.mark();
            prepare(other, state);
            sleepFor(50 * kMs);
            enter(other, state);
            host.command(std::string("fault ") + direction.pcm + ".unplug 1");
            command(direction, "on");
            EXPECT_TRUE(daemon.waitForLog("failed to start audio", mark));
            EXPECT_EQ(daemon.count("error at setHwParams@152: rc=-19", mark), 1);
            EXPECT_EQ(daemon.count(speaker ? "error at uafStart@92: rc=-19"
                                           : "error at uafStart@206: rc=-19",
                                   mark),
                      1);
            host.command("fault clear");
            host.command("card add");
            command(direction, "off");
            command(other, "off");
            // A microphone that failed to start keeps its buffer thread until the next start.
            ASSERT_TRUE(hasThreads(kIdleThreads + (speaker ? 0 : 1)));
            ASSERT_NO_FATAL_FAILURE(expectSound());
            EXPECT_EQ(daemon.count("start, audio still open, trying to close", mark), 1);
        }
    }
}

// The channels' threads wait for the app, and notice the lost card when it is back.
TEST_F(CardRemoval, WhileTheAppIsAway) {
    for (const Return how : kReturns) {
        SCOPED_TRACE(static_cast<int>(how));
        enterBoth(State::kRunning, State::kRunning);
        app.reset();
        sleepFor(100 * kMs);
        removeAndAdd(how);
        sleepFor(100 * kMs);
        app = std::make_unique<App>();
        app->speak(noise);
        stopBoth();
        ASSERT_NO_FATAL_FAILURE(expectSound());
    }
}

}  // namespace
}  // namespace uafd
