// SPDX-License-Identifier: Apache-2.0
// Every row of the event table, on the real channels but without their threads: the effect of an
// event on the channels shows in their log, and the loop's own state in the next event's line.
#include "daemon/event_loop.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"

namespace uafd {
namespace {

using fake_ipc::Message;
using fake_log::kChannelLog;
using fake_log::kDaemonLog;
using fake_log::kSourceLog;
using fake_log::Line;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const Line kEnabled = kDaemonLog.debug("UAC Vexa is enabled, using hw:1\n");
const Line kNotReady = kDaemonLog.error("Audio gadget driver is not ready.\n");
const Line kNameNotSet = kChannelLog.error("devName not set\n");

// The first line of intfUpdate: the request and the state that it finds.
Line request(int on, int state) {
    return kChannelLog.debug("intfUpdate to " + std::to_string(on) + ", current state " +
                             std::to_string(state) + "\n");
}

Line opening(const char* tag, const std::string& name = "hw:1") {
    return {fake_log::kDebug, tag, "start, opening " + name + "\n"};
}

class EventLoopTest : public fake_sys::Test {
  protected:
    static constexpr int kRunning = 1;
    static constexpr int kStopping = 2;
    static constexpr int kStopped = 3;

    void SetUp() override {
        threads.install();
        plug();
    }
    static void plug(int card = 1) {
        fake_alsa::setCards({{0, "rockchip"}, {card, "Vexa_Gadget"}});
    }
    static void unplug() { fake_alsa::setCards({{0, "rockchip"}}); }

    // Handles an event; returns what it logged after its first line, without the PCM's set-up.
    std::vector<Line> handled(uint32_t type, uint32_t data) {
        fake_log::clear();
        loop.handle({type, data}, 8);
        std::vector<Line> lines = fake_log::lines();
        EXPECT_EQ(0u, lines[0].text.find("read msg: type=" + std::to_string(type) + ", "));
        lines.erase(lines.begin());
        lines.erase(std::remove(lines.begin(), lines.end(), kSourceLog.debug("init SSRS\n")),
                    lines.end());
        return lines;
    }
    // The loop's state as an event without effect logs it.
    std::string state() {
        fake_log::clear();
        loop.handle({8, 0}, 8);
        const std::string text = fake_log::lines()[0].text;
        return text.substr(text.find("state="));
    }
    static std::string stateOf(int cardnum, int bindcnt, int bindbad) {
        return "state={cardnum:" + std::to_string(cardnum) + " bindcnt=" + std::to_string(bindcnt) +
               " bindbad:" + std::to_string(bindbad) + "}\n";
    }
    static Line disabled(int bindcnt, int bindbad) {
        return kDaemonLog.debug("UAC Vexa is disabled, bindcnt=" + std::to_string(bindcnt) +
                                ", bindbad=" + std::to_string(bindbad) + "\n");
    }
    static Line unbound(const std::string& stream, int bindbad) {
        return kDaemonLog.error(
            stream + " active while USB is not binded, will try binding it now, bindbad=" +
            std::to_string(bindbad) + "\n");
    }

    FakeThreads threads;
    UafSrc src;
    UafSnk snk;
    EventLoop loop{src, snk};
};

// ---- The line of every event -------------------------------------------------------------------

TEST_F(EventLoopTest, BeginsUnbound) {
    EXPECT_EQ(stateOf(-1, 0, 0), state());
}

TEST_F(EventLoopTest, EventIsLoggedWithTheStateBeforeIt) {
    loop.handle({0, 0xABC}, 8);
    EXPECT_EQ(kDaemonLog.debug("read msg: type=0, data=0x00000abc, size=8; "
                               "state={cardnum:-1 bindcnt=0 bindbad:0}\n"),
              fake_log::lines()[0]);
    fake_log::clear();
    loop.handle({4294967295u, 0xFFFFFFFF}, -1);
    EXPECT_EQ(kDaemonLog.debug("read msg: type=4294967295, data=0xffffffff, size=-1; "
                               "state={cardnum:1 bindcnt=1 bindbad:0}\n"),
              fake_log::lines()[0]);
}

// ---- Bind --------------------------------------------------------------------------------------

TEST_F(EventLoopTest, BindFindsTheCard) {
    EXPECT_THAT(handled(0, 0), ElementsAre(kEnabled));
    EXPECT_EQ(stateOf(1, 1, 0), state());
    EXPECT_EQ(0, src.intfUpdate(false));
    EXPECT_EQ(0, snk.intfUpdate(false));
}

TEST_F(EventLoopTest, BindWithoutTheCardStaysUnbound) {
    unplug();
    EXPECT_THAT(handled(0, 0), ElementsAre(kNotReady));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
}

TEST_F(EventLoopTest, SecondBindSearchesAgainAndCounts) {
    handled(0, 0);
    plug(3);
    EXPECT_THAT(handled(0, 0), ElementsAre(kDaemonLog.debug("UAC Vexa is enabled, using hw:3\n")));
    EXPECT_EQ(stateOf(3, 2, 0), state());
    EXPECT_THAT(handled(2, 1), Contains(opening("UAFSNK", "hw:3")));
    EXPECT_THAT(handled(3, 1), Contains(opening("UAFSRC", "hw:3")));
}

TEST_F(EventLoopTest, BindThatLosesTheCardIsUnbound) {
    handled(0, 0);
    unplug();
    EXPECT_THAT(handled(0, 0), ElementsAre(kNotReady));
    EXPECT_EQ(stateOf(-1, 1, 0), state());
    EXPECT_EQ(0, snk.intfUpdate(false));  // the names are still there
}

// Card number 0 is a valid card.
TEST_F(EventLoopTest, BindToTheFirstCardIsABinding) {
    fake_alsa::setCards({{0, "Vexa_Gadget"}});
    handled(0, 0);
    EXPECT_EQ(stateOf(0, 1, 0), state());
    EXPECT_THAT(handled(2, 1), Not(Contains(unbound("Speaker", 1))));
}

// ---- Unbind ------------------------------------------------------------------------------------

TEST_F(EventLoopTest, UnbindSwitchesBothChannelsOffAndClearsTheirNames) {
    handled(0, 0);
    handled(2, 1);
    EXPECT_THAT(handled(1, 0),
                ElementsAre(request(0, kStopped), request(0, kRunning), disabled(0, 0)));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
    EXPECT_THAT(handled(2, 0), ElementsAre(request(0, kStopping), kNameNotSet));
    EXPECT_THAT(handled(3, 0), ElementsAre(request(0, kStopped), kNameNotSet));
}

TEST_F(EventLoopTest, UnbindSwitchesTheSourceOffFirst) {
    handled(0, 0);
    handled(3, 1);
    EXPECT_THAT(handled(1, 0),
                ElementsAre(request(0, kRunning), request(0, kStopped), disabled(0, 0)));
}

// Both off requests need the names, so these are freed last. The calls of free show the order.
TEST_F(EventLoopTest, UnbindForgetsTheNamesLastAndTheSourcesFirst) {
    std::map<void*, std::string> copies;
    std::vector<std::string> steps;
    fake_sys::hooks().strdup = [&](const char* text) {
        char* const copy = fake_sys::real::strdup(text);
        copies[copy] = text;
        return copy;
    };
    handled(0, 0);
    fake_sys::hooks().free = [&](void* memory) {
        const auto copy = copies.find(memory);
        if (copy != copies.end() && copy->second != "hw:1") {
            steps.push_back("forget " + copy->second);
        }
        fake_sys::real::free(memory);
    };
    fake_log::onLine() = [&](const Line& line) {
        if (line == request(0, kStopped)) {
            steps.emplace_back("off");
        }
    };
    loop.handle({1, 0}, 8);
    fake_sys::hooks().free = nullptr;
    EXPECT_THAT(steps, ElementsAre("off", "off", "forget /tmp/usbAudioFifoTx",
                                   "forget /tmp/usbAudioFifoRx"));
}

TEST_F(EventLoopTest, UnbindWhileUnboundTouchesNothing) {
    EXPECT_THAT(handled(1, 0), ElementsAre(disabled(0, 0)));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
}

TEST_F(EventLoopTest, UnbindCountsDownOnce) {
    handled(0, 0);
    handled(0, 0);
    EXPECT_THAT(handled(1, 0), Contains(disabled(1, 0)));
    EXPECT_EQ(stateOf(-1, 1, 0), state());
    EXPECT_THAT(handled(1, 0), ElementsAre(disabled(1, 0)));
}

// ---- Speaker on and off ------------------------------------------------------------------------

TEST_F(EventLoopTest, SpeakerOnStartsTheSink) {
    handled(0, 0);
    EXPECT_THAT(handled(2, 1), ElementsAre(request(1, kStopped), opening("UAFSNK")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{1, 1}));
    EXPECT_EQ(stateOf(1, 1, 0), state());
}

TEST_F(EventLoopTest, SpeakerOffStopsTheSink) {
    handled(0, 0);
    handled(2, 1);
    EXPECT_THAT(handled(2, 0), ElementsAre(request(0, kRunning)));
    EXPECT_THAT(handled(2, 0), ElementsAre(request(0, kStopping)));
}

TEST_F(EventLoopTest, AnySpeakerDataButZeroIsOn) {
    handled(0, 0);
    EXPECT_THAT(handled(2, 0x80000000), Contains(request(1, kStopped)));
    EXPECT_THAT(handled(2, 0x00010000), Contains(request(1, kRunning)));
}

TEST_F(EventLoopTest, SpeakerOnWhileUnboundBinds) {
    EXPECT_THAT(handled(2, 1), ElementsAre(unbound("Speaker", 1), kEnabled, request(1, kStopped),
                                           opening("UAFSNK")));
    EXPECT_EQ(stateOf(1, 0, 1), state());
    EXPECT_THAT(handled(1, 0), Contains(disabled(-1, 1)));
    EXPECT_EQ(stateOf(-1, -1, 1), state());
}

// The card may appear later than its bind event.
TEST_F(EventLoopTest, SpeakerOnWithoutTheCardRetriesEveryTime) {
    unplug();
    EXPECT_THAT(handled(2, 1),
                ElementsAre(unbound("Speaker", 1), kNotReady, request(1, kStopped), kNameNotSet));
    EXPECT_EQ(stateOf(-1, 0, 1), state());
    EXPECT_THAT(handled(2, 7),
                ElementsAre(unbound("Speaker", 2), kNotReady, request(1, kStopped), kNameNotSet));
    EXPECT_THAT(fake_ipc::messages(), IsEmpty());
    plug();
    EXPECT_THAT(handled(2, 1), Contains(opening("UAFSNK")));
    EXPECT_EQ(stateOf(1, 0, 3), state());
}

TEST_F(EventLoopTest, SpeakerOffWhileUnboundDoesNotBind) {
    EXPECT_THAT(handled(2, 0), ElementsAre(request(0, kStopped), kNameNotSet));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
    EXPECT_EQ(0, fake_alsa::count("snd_card_next"));
}

// ---- Microphone on and off ---------------------------------------------------------------------

TEST_F(EventLoopTest, MicOnStartsTheSource) {
    handled(0, 0);
    EXPECT_THAT(handled(3, 1), ElementsAre(request(1, kStopped), opening("UAFSRC")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{2, 1}));
    EXPECT_EQ(stateOf(1, 1, 0), state());
}

TEST_F(EventLoopTest, MicOffStopsTheSource) {
    handled(0, 0);
    handled(3, 0x01000000);
    EXPECT_THAT(handled(3, 0), ElementsAre(request(0, kRunning)));
    EXPECT_THAT(handled(2, 0), ElementsAre(request(0, kStopped)));
}

TEST_F(EventLoopTest, MicOnWhileUnboundBinds) {
    EXPECT_THAT(handled(3, 1),
                ElementsAre(unbound("Mic", 1), kEnabled, request(1, kStopped), opening("UAFSRC")));
    EXPECT_EQ(stateOf(1, 0, 1), state());
}

// The card may appear later than its bind event.
TEST_F(EventLoopTest, MicOnWithoutTheCardRetriesEveryTime) {
    unplug();
    EXPECT_THAT(handled(3, 1),
                ElementsAre(unbound("Mic", 1), kNotReady, request(1, kStopped), kNameNotSet));
    EXPECT_THAT(handled(2, 1), Contains(unbound("Speaker", 2)));
    EXPECT_THAT(handled(3, 1), Contains(unbound("Mic", 3)));
    EXPECT_EQ(stateOf(-1, 0, 3), state());
}

TEST_F(EventLoopTest, MicOffWhileUnboundDoesNotBind) {
    EXPECT_THAT(handled(3, 0), ElementsAre(request(0, kStopped), kNameNotSet));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
}

TEST_F(EventLoopTest, FailedStartChangesNothingOfTheLoop) {
    handled(0, 0);
    fake_alsa::answerAlways("snd_pcm_open", -EBUSY);
    handled(2, 1);
    EXPECT_EQ(stateOf(1, 1, 0), state());
}

// ---- Volume and mute ---------------------------------------------------------------------------

TEST_F(EventLoopTest, SpeakerVolumeGoesToTheAppAsTypeThree) {
    EXPECT_THAT(handled(4, 0x0001FF80),
                ElementsAre(kChannelLog.debug("setVolume volume=-128, sending: type=0x00000003, "
                                              "data=0x0000FF80\n")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{3, 0xFF80}));
}

TEST_F(EventLoopTest, MicVolumeGoesToTheAppAsTypeFour) {
    EXPECT_THAT(handled(5, 0x12347FFF),
                ElementsAre(kChannelLog.debug("setVolume volume=32767, sending: type=0x00000004, "
                                              "data=0x00007FFF\n")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{4, 0x7FFF}));
}

TEST_F(EventLoopTest, SpeakerMuteGoesToTheAppAsTypeFive) {
    EXPECT_THAT(handled(6, 2),
                ElementsAre(kChannelLog.debug("setMute mute=1, sending: type=0x00000005, "
                                              "data=0x00000001\n")));
    handled(6, 0);
    handled(6, 0x80000000);
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{5, 1}, Message{5, 0}, Message{5, 1}));
}

TEST_F(EventLoopTest, MicMuteGoesToTheAppAsTypeSix) {
    EXPECT_THAT(handled(7, 0),
                ElementsAre(kChannelLog.debug("setMute mute=0, sending: type=0x00000006, "
                                              "data=0x00000000\n")));
    handled(7, 0x00010000);
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{6, 0}, Message{6, 1}));
}

// ---- Anything else -----------------------------------------------------------------------------

TEST_F(EventLoopTest, UnknownTypeChangesNothing) {
    handled(0, 0);
    EXPECT_THAT(handled(8, 1), ElementsAre(kDaemonLog.error("invalid msg: type=8\n")));
    EXPECT_THAT(handled(0xFFFFFFFF, 1),
                ElementsAre(kDaemonLog.error("invalid msg: type=4294967295\n")));
    EXPECT_EQ(stateOf(1, 1, 0), state());
    EXPECT_THAT(fake_ipc::messages(), IsEmpty());
}

// ---- Reading -----------------------------------------------------------------------------------

// Thrown by the last read, as the loop never ends.
struct EndOfScript {};

class EventLoopRunTest : public EventLoopTest {
  protected:
    struct Read {
        ssize_t result;
        UacUserMsgT record;  // of which as many bytes are delivered as `result` says
    };
    // Runs the loop on these reads; returns the first line about each event.
    std::vector<std::string> run(std::deque<Read> reads) {
        fake_sys::hooks().read = [&](int fd, void* buffer, size_t size) {
            EXPECT_EQ(5, fd);
            EXPECT_EQ(8u, size);
            if (reads.empty()) {
                throw EndOfScript();
            }
            const Read next = reads.front();
            reads.pop_front();
            if (next.result > 0) {
                memcpy(buffer, &next.record, static_cast<size_t>(next.result));
            }
            return next.result;
        };
        fake_sys::hooks().usleep = [this](useconds_t us) {
            pausesUs.push_back(us);
            linesAtPause.push_back(fake_log::lines().size());
            return 0;
        };
        EXPECT_THROW(loop.run(5), EndOfScript);
        std::vector<std::string> events;
        for (const Line& line : fake_log::lines()) {
            if (line.text.find("read msg: ") == 0) {
                events.push_back(line.text.substr(10, line.text.find(';') - 10));
            }
        }
        return events;
    }

    std::vector<useconds_t> pausesUs;
    std::vector<size_t> linesAtPause;
};

TEST_F(EventLoopRunTest, RecordsAreHandledInOrder) {
    EXPECT_THAT(run({{8, {0, 0}}, {8, {2, 1}}, {8, {6, 1}}}),
                ElementsAre("type=0, data=0x00000000, size=8", "type=2, data=0x00000001, size=8",
                            "type=6, data=0x00000001, size=8"));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{1, 1}, Message{5, 1}));
}

TEST_F(EventLoopRunTest, FailedFirstReadIsAnInvalidRecord) {
    EXPECT_THAT(run({{-1, {}}}), ElementsAre("type=4294967295, data=0x00000000, size=-1"));
    EXPECT_THAT(fake_log::lines(), Contains(kDaemonLog.error("invalid msg: type=4294967295\n")));
    EXPECT_EQ(stateOf(-1, 0, 0), state());
}

TEST_F(EventLoopRunTest, FailedReadHandlesTheRecordBeforeOnceMore) {
    EXPECT_THAT(run({{8, {6, 1}}, {-1, {}}, {0, {}}}),
                ElementsAre("type=6, data=0x00000001, size=8", "type=6, data=0x00000001, size=-1",
                            "type=6, data=0x00000001, size=0"));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Message{5, 1}, Message{5, 1}, Message{5, 1}));
}

TEST_F(EventLoopRunTest, ShortReadLeavesTheRestOfTheRecord) {
    EXPECT_THAT(run({{8, {6, 0x01020304}}, {4, {7, 0}}, {5, {7, 0xFF}}}),
                ElementsAre("type=6, data=0x01020304, size=8", "type=7, data=0x01020304, size=4",
                            "type=7, data=0x010203ff, size=5"));
    EXPECT_THAT(pausesUs, IsEmpty());
}

// A read that brings nothing did not wait: without a pause the loop would spin.
TEST_F(EventLoopRunTest, AReadThatBringsNothingIsHandledAndThenPausedFor) {
    run({{8, {6, 1}}, {-1, {}}, {0, {}}, {1, {6, 1}}, {-1, {}}, {8, {6, 0}}});
    EXPECT_THAT(pausesUs, ElementsAre(10000, 10000, 10000));
    EXPECT_THAT(linesAtPause, ElementsAre(4, 6, 10));  // two lines for each record
}

TEST_F(EventLoopRunTest, ARecordHandledAgainCountsAgain) {
    run({{8, {0, 0}}, {-1, {}}, {-1, {}}});
    EXPECT_EQ(stateOf(1, 3, 0), state());
    run({{8, {1, 0}}, {-1, {}}});
    EXPECT_EQ(stateOf(-1, 2, 0), state());
    unplug();
    run({{8, {3, 1}}, {-1, {}}});
    EXPECT_EQ(stateOf(-1, 2, 2), state());
}

}  // namespace
}  // namespace uafd
