// SPDX-License-Identifier: Apache-2.0
// The gadget control device at its worst: reads that are short, fail or end the file, refused
// requests, thousands of records at once, records of unknown types, bindings at the wrong time.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr int kBurst = 10000;

class RecordCase : public Scenario {
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
    // Has one record handled, with a new count from that moment.
    void handle(uint32_t type, uint32_t data) {
        look();
        queue(type, data);
        ASSERT_TRUE(settle());
    }
};

// The event loop's line about a read in the state after the start.
std::string readLine(uint32_t type, uint32_t data, int size) {
    char line[128];
    snprintf(line, sizeof line,
             "read msg: type=%u, data=0x%08x, size=%d; state={cardnum:1 bindcnt=1 bindbad:0}", type,
             data, size);
    return line;
}

class ControlDevice : public RecordCase {
  protected:
    void SetUp() override {
        start();
        app->waitForMessages(5);  // configured, two volumes, two mutes
    }
    // Has the records handled together, as if the daemon had not been scheduled meanwhile.
    template <typename Queue>
    void burst(Queue&& queueRecords) {
        daemon.freeze();
        queueRecords();
        daemon.thaw();
        ASSERT_TRUE(settle(60 * kSecond));
    }
    // Streams in both directions during the event; no frame may be lost.
    template <typename Event>
    void expectSoundGoesOnDuring(Event&& event) {
        const HostPlayer player(ramp);
        app->speak(ramp);
        bothOn();
        sleepFor(300 * kMs);
        app->takeHeard();
        const auto before = host.counters();
        event();
        sleepFor(100 * kMs);
        const Samples heard = app->takeHeard().left;
        const auto after = host.counters();
        ASSERT_GT(heard.size(), 4800U);
        EXPECT_EQ(breaksIn(heard, 0, heard.size()), 0);
        for (const char* key : {"capture.xruns", "playback.xruns", "capture.stops",
                                "playback.stops", "mic.silent", "mic.stale", "speaker.lost"}) {
            EXPECT_EQ(after.at(key), before.at(key)) << key;
        }
        app->speak(silence);
        bothOff();
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
};

// ---- Reads -------------------------------------------------------------------------------------

// The daemon reads each record into the same buffer: bytes that a read does not bring are those of
// the record before.
TEST_F(ControlDevice, AShortReadLeavesTheRestOfTheRecordBefore) {
    const uint32_t before[] = {kSpeakerVolume, 0x11223344};
    const uint32_t next[] = {kMicVolume, 0xAABBCCDD};
    for (size_t bytes = 0; bytes <= sizeof next; ++bytes) {
        SCOPED_TRACE(bytes);
        handle(before[0], before[1]);
        expectTold({{3, 0x3344}});
        uint32_t mixed[2];
        memcpy(mixed, before, sizeof mixed);
        memcpy(mixed, next, bytes);
        host.command("fault read_short " + std::to_string(bytes));
        handle(next[0], next[1]);
        EXPECT_EQ(said(readLine(mixed[0], mixed[1], static_cast<int>(bytes))), 1);
        expectTold({{mixed[0] - 1, mixed[1] & 0xFFFF}});
    }
}

TEST_F(ControlDevice, AShortReadCanSwitchAStream) {
    handle(kSpeakerVolume, 1);
    host.command("fault read_short 4");
    handle(kSpeakerOn, 0);  // its 0 does not arrive
    EXPECT_EQ(said(readLine(kSpeakerOn, 1, 4)), 1);
    expectTold({{kSpeaker, 1}});
}

TEST_F(ControlDevice, AReadThatFailsRepeatsTheRecordBeforeWhateverTheError) {
    for (const int error : {EINTR, EIO, EAGAIN, ENOMEM, EFAULT, ENODEV, EINVAL, 512}) {
        SCOPED_TRACE(error);
        handle(kMicMute, 1);
        expectTold({{6, 1}});
        look();
        host.command("fault read " + std::to_string(error));
        EXPECT_TRUE(daemon.waitForLog(readLine(kMicMute, 1, -1)));
        expectTold({{6, 1}});
    }
}

TEST_F(ControlDevice, ARepeatedSwitchChangesNothing) {
    bothOn();
    struct {
        Type type;
        uint32_t data;
        const char* says;
    } const rows[] = {
        {kSpeakerOn, 1, "intfUpdate to 1, current state 1"},
        {kMicOn, 1, "intfUpdate to 1, current state 1"},
        {kSpeakerOn, 0, "intfUpdate to 0, current state #"},
        {kMicOn, 0, "intfUpdate to 0, current state #"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.says);
        look();
        host.command("fault read 5 after=1 times=3");
        queue(row.type, row.data);
        ASSERT_TRUE(daemon.waitForLog(readLine(row.type, row.data, -1), 0, 3));
        EXPECT_EQ(said(row.says), 4);
        if (row.data != 0) {
            expectTold({});
        } else {
            expectTold({{row.type == kSpeakerOn ? kSpeaker : kMic, 0}});
        }
    }
}

// A device that has disappeared fails every read. Each failure handles the last bind again, and
// counts it.
TEST_F(ControlDevice, ReadsThatGoOnFailingAreHandledAHundredTimesASecond) {
    constexpr int failures = 200;
    const std::string repeated =
        "read msg: type=0, data=0x00000000, size=-1; state={cardnum:1 bindcnt=# bindbad:0}";
    handle(kBind, 0);
    look();
    const size_t mark = daemon.mark();
    host.command("fault read 19 times=" + std::to_string(failures));
    ASSERT_TRUE(daemon.waitForLog(repeated, mark, failures, 10 * kSecond));
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), failures);

    std::vector<Ns> times;
    for (size_t i = mark; i < daemon.log().size(); ++i) {
        if (matches(daemon.log()[i].text, repeated)) {
            times.push_back(daemon.log()[i].at);
        }
    }
    const double perSecond =
        static_cast<double>(failures - 1) * kSecond / static_cast<double>(times.back() - times[0]);
    RecordProperty("repeated_records_per_second", std::to_string(perSecond));
    EXPECT_LE(perSecond, 100.0);
    EXPECT_GT(perSecond, 90.0);

    handle(kUnbind, 0);
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=" + std::to_string(failures + 1) + ", bindbad=0"),
              1);
    handle(kBind, 0);
}

TEST_F(ControlDevice, ReadsThatEndTimeAndAgainCostNoSound) {
    constexpr int ends = 100;
    expectSoundGoesOnDuring([this] {
        handle(kSpeakerMute, 1);
        look();
        host.command("fault read 0 times=" + std::to_string(ends));
        ASSERT_TRUE(daemon.waitForLog(readLine(kSpeakerMute, 1, 0), 0, ends));
        ASSERT_TRUE(settle());
        expectTold(std::vector<Message>(ends, {5, 1}));
    });
}

// ---- Requests ----------------------------------------------------------------------------------

TEST_F(ControlDevice, ARefusedMuteIsLoggedAndForgotten) {
    look();
    host.command("fault set_mute 5");
    const Ns since = now();
    app->send({5, 1});
    ASSERT_TRUE(waitFor([&] { return said("rxLoop: ioctl failed: <-1:5>") == 1; }));
    app->send({5, 1});
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_MUTE 1 0", since));
}

// ---- Many records ------------------------------------------------------------------------------

TEST_F(ControlDevice, TenThousandRecordsInABurstAreHandledInOrder) {
    expectSoundGoesOnDuring([this] {
        look();
        burst([this] { queue(kSpeakerVolume, 0, kBurst); });
        uint32_t next = 0;
        for (const LogLine& line : daemon.log()) {
            next += line.text == readLine(kSpeakerVolume, next, 8) ? 1 : 0;
        }
        EXPECT_EQ(next, static_cast<uint32_t>(kBurst));
        // Each new message replaces the newest pending one, so the last of all arrives.
        const Message last{3, kBurst - 1};
        ASSERT_TRUE(waitFor([&] { return !told().empty() && told().back() == last; }));
        const std::vector<Message> messages = told();
        EXPECT_EQ(messages.size() + static_cast<size_t>(
                                        said("queueMsg: overwriting msg: <0x#:0x#> -> <0x#:0x#>")),
                  static_cast<size_t>(kBurst));
        EXPECT_TRUE(
            std::is_sorted(messages.begin(), messages.end(),
                           [](const Message& a, const Message& b) { return a.data < b.data; }));
    });
}

TEST_F(ControlDevice, TenThousandSwitchesInABurstEndAsTheLastOnesSay) {
    for (const uint32_t last : {1U, 0U}) {
        SCOPED_TRACE(last);
        look();
        burst([&] {
            for (int i = 0; i < kBurst / 4; ++i) {
                queue(kSpeakerOn, 1 - last);
                queue(kMicOn, 1 - last);
                queue(kSpeakerOn, last);
                queue(kMicOn, last);
            }
        });
        EXPECT_EQ(said("intfUpdate to #, current state #"), kBurst);
        EXPECT_TRUE(hasThreads(last != 0 ? kStreamingThreads : kIdleThreads));
        EXPECT_EQ(told().back().data, last);
    }
}

// Some of these types have the low byte or the low half of an event's type.
TEST_F(ControlDevice, UnknownTypesDoNothingToRunningStreams) {
    expectSoundGoesOnDuring([this] {
        for (const uint32_t type : {8U, 9U, 0x100U, 0x101U, 0x102U, 0x10001U, 0x10002U, 0x7FFFFFFFU,
                                    0x80000001U, 0x80000002U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(type);
            for (const uint32_t data : {0U, 1U, 0xFFFFFFFFU}) {
                handle(type, data);
                EXPECT_EQ(said("invalid msg: type=" + std::to_string(type)), 1);
                EXPECT_EQ(said("intfUpdate to #, current state #"), 0);
                EXPECT_TRUE(told().empty());
            }
        }
        burst([this] { queue(8, 0, kBurst); });
        EXPECT_EQ(daemon.count("invalid msg: type=8"), kBurst + 3);
    });
}

// ---- The start ---------------------------------------------------------------------------------

class ControlDeviceAtStart : public RecordCase {};

TEST_F(ControlDeviceAtStart, RefusesTheInitialStateAndIsBoundByTheFirstStream) {
    host.command("fault init_sync 22");
    start();
    EXPECT_EQ(daemon.count("failed F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, rc=-1, error=22"), 1);
    EXPECT_EQ(daemon.count("UAC Vexa is enabled, using hw:1"), 0);
    app->waitForMessages(1);
    handle(kMicOn, 1);
    EXPECT_EQ(said("Mic active while USB is not binded, will try binding it now, bindbad=1"), 1);
    expectTold({{kMic, 1}});
}

// Before the first record there is none to repeat, and the daemon invents none.
TEST_F(ControlDeviceAtStart, FailsTheFirstReads) {
    host.command("fault init_sync 22");
    host.command("fault read 5 times=3");
    start();
    EXPECT_EQ(daemon.count("invalid msg: type=4294967295"), 3);
    EXPECT_EQ(daemon.count("UAC Vexa is disabled, bindcnt=#, bindbad=#"), 0);
    app->waitForMessages(1);
    look();
    host.command("bind");
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    expectTold({});
}
// ---- Binding at the wrong time -----------------------------------------------------------------

// Twice, before there is a card, while streams run or are about to stop.
class Binding : public RecordCase {};

TEST_F(Binding, TwiceEachWhileBothStreamsRun) {
    start();
    bothOn();
    const auto before = host.counters();
    handle(kBind, 0);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    handle(kBind, 0);
    sleepFor(100 * kMs);
    EXPECT_EQ(host.counter("capture.stops"), before.at("capture.stops"));
    EXPECT_EQ(host.counter("playback.stops"), before.at("playback.stops"));
    EXPECT_TRUE(told().empty());

    look();
    queue(kUnbind, 0);
    queue(kUnbind, 0);
    ASSERT_TRUE(hasThreads(kIdleThreads));
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=2, bindbad=0"), 2);
    EXPECT_EQ(said("intfUpdate to 0, current state 1"), 2);
    EXPECT_TRUE(waitFor([this] { return told().size() == 2; }));
    EXPECT_EQ(told()[0].data + told()[1].data, 0U);
    handle(kBind, 0);
}

TEST_F(Binding, AgainFindsTheCardWhereItIsNow) {
    start();
    for (const int index : {4, 7, 1}) {
        SCOPED_TRACE(index);
        host.command("card remove");
        host.command("card add " + std::to_string(index));
        handle(kBind, 0);
        EXPECT_EQ(said("UAC Vexa is enabled, using hw:" + std::to_string(index)), 1);
        handle(kSpeakerOn, 1);
        EXPECT_EQ(said("start, opening hw:" + std::to_string(index)), 1);
        handle(kSpeakerOn, 0);
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
}

TEST_F(Binding, ComesAfterBothStreamsWhichWaitForTheirNextStart) {
    host.command("unbind");
    start();
    EXPECT_EQ(daemon.count("UAC Vexa is disabled, bindcnt=0, bindbad=0"), 1);
    app->waitForMessages(1);
    look();
    switchBoth(true);
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("Speaker active while USB is not binded, will try binding it now, bindbad=1"),
              1);
    EXPECT_EQ(said("Mic active while USB is not binded, will try binding it now, bindbad=2"), 1);
    EXPECT_EQ(said("Audio gadget driver is not ready."), 2);
    EXPECT_EQ(said("devName not set"), 2);
    host.command("bind");
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    sleepFor(kSecond);
    EXPECT_TRUE(told().empty());
    EXPECT_TRUE(hasThreads(kIdleThreads));
    handle(kSpeakerOn, 1);
    expectTold({{kSpeaker, 1}});
}

// The unbind meets a stop at each of its counts: the stop ends without the names, and a bind and a
// start right after it do not meet the old stream.
TEST_F(Binding, EndsWhileBothStreamsAreStopping) {
    start();
    int stopping = 0;
    for (Ns delay = 0; delay <= 20 * kMs; delay += kMs) {
        SCOPED_TRACE(delay);
        handle(kSpeakerOn, 1);
        handle(kMicOn, 1);
        sleepFor(30 * kMs);
        look();
        queue(kSpeakerOn, 0);
        queue(kMicOn, 0);
        sleepFor(delay);
        queue(kUnbind, 0);
        ASSERT_TRUE(hasThreads(kIdleThreads));
        EXPECT_TRUE(waitFor([this] { return told().size() == 2; }));
        EXPECT_EQ(said("UAF channel stopped. Current state is (2)"), 2);
        stopping += said("intfUpdate to 0, current state 2");
        const auto counters = host.counters();
        EXPECT_EQ(counters.at("capture.opens"), counters.at("capture.closes"));
        EXPECT_EQ(counters.at("playback.opens"), counters.at("playback.closes"));
        handle(kBind, 0);
    }
    EXPECT_GE(stopping, 20);  // the unbind came while a stream was stopping
}

TEST_F(Binding, ChangesInABurstEndAsTheLastRecordSays) {
    start();
    for (const uint32_t last : {1U, 0U}) {
        SCOPED_TRACE(last);
        daemon.freeze();
        for (int i = 0; i < 200; ++i) {
            queue(kSpeakerOn, 1);
            queue(kMicOn, 1);
            queue(kUnbind, 0);
            queue(kSpeakerOn, 0);
            queue(kBind, 0);
        }
        queue(kSpeakerOn, last);
        queue(kMicOn, last);
        daemon.thaw();
        ASSERT_TRUE(settle(60 * kSecond));
        sleepFor(100 * kMs);  // longer than a stop waits
        EXPECT_TRUE(hasThreads(last != 0 ? kStreamingThreads : kIdleThreads));
    }
}

}  // namespace
}  // namespace uafd
