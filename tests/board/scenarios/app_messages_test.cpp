// SPDX-License-Identifier: Apache-2.0
// The app's message socket absent, stale or full, datagrams of every size, and sync-ups at every
// moment of a channel's life. Messages arrive in order; what the app cannot take costs messages and
// never harms the daemon.
#include <algorithm>
#include <optional>
#include <unistd.h>

#include <gmock/gmock.h>

#include "board/kit/files.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using Messages = std::vector<Message>;

constexpr uint32_t kSpeakerVolume = 3;
constexpr int kPendingMax = 100;  // of the daemon's queue
constexpr char kOverwriting[] = "queueMsg: overwriting msg: <0x#:0x#> -> <0x#:0x#>";

// The app has no socket of its own: the test binds one.
class AppSocket : public Scenario {
  protected:
    void SetUp() override {
        socket.emplace();
        start(true, silent());
        ASSERT_EQ(receive(5).size(), 5U);  // configured, two volumes, two mutes
    }

    static AppOptions silent() {
        AppOptions options;
        options.socket = false;
        return options;
    }

    // Unlinks the path as well.
    void removeSocket() {
        socket.reset();
        unlink(kSocketRx);
    }
    void leaveSocketStale() { socket.reset(); }

    // The host sets its volume to each of these values; each change is a message.
    void changeVolume(int from, int to) {
        for (int volume = from; volume <= to; ++volume) {
            host.command("volume speaker " + std::to_string(volume));
        }
        ASSERT_TRUE(settle());
    }
    static Messages volumes(int from, int to) {
        Messages messages;
        for (int volume = from; volume <= to; ++volume) {
            messages.push_back({kSpeakerVolume, static_cast<uint32_t>(volume)});
        }
        return messages;
    }

    // Waits for `count` messages, and a little longer in case of one too many.
    Messages receive(size_t count, Ns limit = 6 * kSecond) {
        Messages received;
        const auto take = [&] {
            const Messages more = socket->take();
            received.insert(received.end(), more.begin(), more.end());
            return received.size() >= count;
        };
        waitFor(take, limit);
        sleepFor(50 * kMs);
        take();
        return received;
    }

    std::optional<MessageSocket> socket;
};

// ---- Absent ------------------------------------------------------------------------------------

struct Absence {
    int seconds;
    int lost;  // of the messages sent at its beginning
};

class AbsentSocket : public AppSocket, public testing::WithParamInterface<Absence> {};

// The daemon tries a message every 5 s, 20 times, the last time after 95 s; the next message begins
// when the one before has been dropped.
TEST_P(AbsentSocket, DelaysMessagesAndAtLastDropsThem) {
    const auto [seconds, lost] = GetParam();
    app.reset();  // the whole app is away, which also makes the time cheap to simulate
    micService.reset();
    removeSocket();
    const Ns since = now();
    changeVolume(1, 3);
    const Ns cpu = cpuOf(daemon.pid());
    sleepUntil(since + seconds * kSecond);
    EXPECT_LT(cpuOf(daemon.pid()) - cpu, (seconds + 1) * 5 * kMs);
    socket.emplace();
    EXPECT_EQ(receive(static_cast<size_t>(3 - lost)), volumes(1 + lost, 3));
    EXPECT_EQ(daemon.count("sendMsg failed: error: <#:#>; bytes: #; attempts: <#:#>; "
                           "data: <0x#:0x#>"),
              0);
    micService = std::make_unique<MicService>();
    app = std::make_unique<App>(silent());
}

INSTANTIATE_TEST_SUITE_P(For, AbsentSocket,
                         testing::Values(Absence{4, 0}, Absence{20, 0}, Absence{94, 0},
                                         Absence{96, 1}, Absence{101, 1}),
                         [](const auto& info) {
                             return std::to_string(info.param.seconds) + "Seconds";
                         });

class PendingMessages : public AppSocket, public testing::WithParamInterface<int> {};

// The sending thread holds one message; the others wait in the queue.
TEST_P(PendingMessages, KeepTheirOrderAndOnlyTheNewestGivesWay) {
    const int tooMany = GetParam();
    const int last = 1 + kPendingMax + tooMany;
    removeSocket();
    changeVolume(1, 1);
    sleepFor(100 * kMs);
    changeVolume(2, last);
    EXPECT_EQ(daemon.count(kOverwriting), tooMany);
    socket.emplace();
    Messages expected = volumes(1, kPendingMax);
    expected.push_back({kSpeakerVolume, static_cast<uint32_t>(last)});
    EXPECT_EQ(receive(expected.size()), expected);
}

INSTANTIATE_TEST_SUITE_P(TooMany, PendingMessages, testing::Values(0, 1, 30),
                         testing::PrintToStringParamName());

// A full queue: each of a reply's three messages takes the place of the one before.
TEST_F(AppSocket, WithAHundredPendingGetsTheLastMessageOfASyncUpAlone) {
    removeSocket();
    changeVolume(1, 1);
    sleepFor(100 * kMs);
    changeVolume(2, 1 + kPendingMax);
    app->send({7, 0});
    EXPECT_TRUE(daemon.waitForLog(kOverwriting, 0, 3));
    socket.emplace();
    Messages expected = volumes(1, kPendingMax);
    expected.push_back({kMic, 0});
    EXPECT_EQ(receive(expected.size()), expected);
}

// ---- Stale and full ----------------------------------------------------------------------------

TEST_F(AppSocket, ThatIsStaleLosesEachMessageAtOnce) {
    leaveSocketStale();
    changeVolume(1, 3);
    EXPECT_TRUE(
        daemon.waitForLog("sendMsg failed: error: <-1:111>; bytes: 0; attempts: <1:0>; "
                          "data: <0x00000003:0x00000003>"));
    EXPECT_EQ(daemon.count("sendMsg failed: error: <-1:111>; bytes: 0; attempts: <1:0>; "
                           "data: <0x00000003:0x#>"),
              3);
    socket.emplace();
    changeVolume(4, 5);
    EXPECT_EQ(receive(2), volumes(4, 5));
}

class FullSocket : public AppSocket {
  protected:
    void SetUp() override {
        AppSocket::SetUp();
        inSocket = 1 + std::stoi(contents("/proc/sys/net/unix/max_dgram_qlen"));
    }

    int inSocket = 0;
};

TEST_F(FullSocket, HoldsUpNothingButTheMessages) {
    const int kept = inSocket + 1 + kPendingMax;
    changeVolume(1, inSocket + 1);
    sleepFor(100 * kMs);
    changeVolume(inSocket + 2, kept);
    EXPECT_EQ(daemon.count(kOverwriting), 0);
    changeVolume(kept + 1, kept + 2);
    EXPECT_EQ(daemon.count(kOverwriting), 2);
    // While it looks, the channels start and stop: more messages for the queue.
    EXPECT_EQ(findDamage(), "");
    EXPECT_EQ(daemon.count(kOverwriting), 6);

    Messages expected = volumes(1, kept);
    const Messages received = receive(expected.size());
    ASSERT_EQ(received.size(), expected.size());
    expected.back() = received.back();
    EXPECT_EQ(received, expected);
    EXPECT_EQ(received.back().data, 0U);
    changeVolume(1, 2);
    EXPECT_EQ(receive(2), volumes(1, 2));
}

TEST_F(FullSocket, OfAnAppThatDiesLetsTheSenderGo) {
    changeVolume(1, inSocket + 5);
    sleepFor(100 * kMs);
    leaveSocketStale();
    EXPECT_TRUE(
        daemon.waitForLog("sendMsg failed: error: <-1:#>; bytes: 0; attempts: <1:0>; "
                          "data: <0x00000003:0x#>",
                          0, 5));
    socket.emplace();
    changeVolume(1, 2);
    EXPECT_EQ(receive(2), volumes(1, 2));
}

// ---- Datagrams of every size -------------------------------------------------------------------

// A datagram that is too short is refused; of a longer one the first eight bytes count.
TEST_F(AppSocket, SendsAMessageWithEveryDatagramOfEightBytesOrMore) {
    for (const size_t size : {1, 4, 7, 8, 9, 12, 65000}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> bytes(std::max(size, sizeof(Message)), 0xFF);
        *reinterpret_cast<Message*>(bytes.data()) = {5, 1};
        const Ns since = now();
        ASSERT_EQ(app->sendBytes(bytes.data(), size), 0);
        app->send({3, 0});  // once this is handled, so is what came before it
        ASSERT_TRUE(host.waitForEvents("uac SET_SPK_VOLUME 0 0", since));
        const bool isMessage = size >= sizeof(Message);
        EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 1 0", since), isMessage ? 1 : 0);
        EXPECT_EQ(daemon.count("unexpected msg size: " + std::to_string(size)), isMessage ? 0 : 1);
    }
}

// An empty datagram ends the daemon's receiving for good, and nothing else.
TEST_F(AppSocket, ThatGetsAnEmptyDatagramHearsTheDaemonStill) {
    app->sendBytes("", 0);
    EXPECT_TRUE(daemon.waitForLog("receive error: <0:#>"));
    missingThreads = 1;
    EXPECT_TRUE(hasThreads(kIdleThreads - missingThreads));
    const Ns since = now();
    EXPECT_EQ(app->send({5, 1}), 0);
    sleepFor(100 * kMs);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE", since), 0);
    changeVolume(1, 2);
    EXPECT_EQ(receive(2), volumes(1, 2));
    EXPECT_EQ(findDamage(), "");

    daemon.stop();
    missingThreads = 0;
    startDaemon();
    EXPECT_EQ(app->send({5, 1}), 0);
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_MUTE 1 0", since));
}

// ---- Sync-ups ----------------------------------------------------------------------------------

class SyncUp : public AppSocket {
  protected:
    Messages syncUp() {
        app->send({7, 0});
        return receive(1);
    }
    static Messages reply(uint32_t speaker, uint32_t mic) {
        return {{0, 1}, {kSpeaker, speaker}, {kMic, mic}};
    }
};

TEST_F(SyncUp, BeforeTheGadgetIsBoundTellsTheUsbState) {
    host.command("unbind");
    host.command("usb_state DISCONNECTED quiet");
    daemon.stop();
    startDaemon();
    receive(0);
    EXPECT_THAT(syncUp(), ElementsAre(Message{0, 0}));
    host.command("usb_state CONFIGURED");
    EXPECT_THAT(receive(1), ElementsAre(Message{0, 1}));
    EXPECT_EQ(syncUp(), reply(0, 0));
    host.command("bind");
    EXPECT_EQ(syncUp(), reply(0, 0));
}

enum State : uint32_t { kStopped, kRunning, kStopping };

// To the app a stopping channel is on until it has stopped.
TEST_F(SyncUp, InEveryStateOfBothChannelsTellsIt) {
    for (const State speaker : {kStopped, kRunning, kStopping}) {
        for (const State mic : {kStopped, kRunning, kStopping}) {
            SCOPED_TRACE(testing::Message() << speaker << " " << mic);
            if (speaker != kStopped) {
                host.command("speaker on");
            }
            if (mic != kStopped) {
                host.command("mic on");
            }
            ASSERT_TRUE(settle());
            receive(0);
            const Ns off = now();
            if (speaker == kStopping) {
                queue(2, 0);
            }
            if (mic == kStopping) {
                queue(3, 0);
            }
            ASSERT_TRUE(settle());
            app->send({7, 0});
            const Messages expected = reply(speaker != kStopped, mic != kStopped);
            ASSERT_TRUE(waitFor([&] {
                const Messages more = socket->take();
                return !more.empty() && Messages(more.begin(), more.begin() + 3) == expected;
            }));
            EXPECT_LT(now() - off, 15 * kMs) << "too late for a stopping channel";
            bothOff();
            ASSERT_TRUE(hasThreads(kIdleThreads));
            receive(0);
        }
    }
}

// At any moment the three messages stay together, and the last states that the app heard are true.
TEST_F(SyncUp, DuringStartsAndStopsNeverLeavesTheAppWithAnOldState) {
    constexpr int steps = 40;
    constexpr Ns steppedThrough[] = {25 * kMs, 5 * kMs};  // a stop, a start
    for (int i = 0; i < steps; ++i) {
        SCOPED_TRACE(i);
        for (const uint32_t on : {1U, 0U}) {
            host.command(std::string("speaker ") + (on == 1 ? "on" : "off"));
            host.command(std::string("mic ") + (on == 1 ? "on" : "off"));
            sleepFor(steppedThrough[on] * i / steps);
            app->send({7, 0});
            ASSERT_TRUE(hasThreads(on == 1 ? kStreamingThreads : kIdleThreads));
            const Messages heard = receive(5);
            ASSERT_EQ(heard.size(), 5U);
            const auto connected = std::find(heard.begin(), heard.end(), Message{0, 1});
            ASSERT_LT(connected, heard.end() - 2);
            EXPECT_EQ(connected[1].type, kSpeaker);
            EXPECT_EQ(connected[2].type, kMic);
            for (const uint32_t channel : {kSpeaker, kMic}) {
                EXPECT_EQ(std::count(heard.begin(), heard.end(), Message{channel, on}) +
                              std::count(heard.begin(), heard.end(), Message{channel, 1 - on}),
                          2);
                const auto last = std::find_if(heard.rbegin(), heard.rend(),
                                               [&](const Message& m) { return m.type == channel; });
                EXPECT_EQ(last->data, on);
            }
        }
    }
}

}  // namespace
}  // namespace uafd
