// SPDX-License-Identifier: Apache-2.0
// Binding and unbinding at the wrong time: twice, before there is a card, while streams run or are
// about to stop.
#include "tests/board/scenarios/record_case.h"

namespace uafd {
namespace {

using board::kMs;
using board::kSecond;
using board::Message;

class Binding : public RecordCase {};

TEST_F(Binding, TwiceEachWhileBothStreamsRun) {
    start();
    bothOn();
    const auto before = host.counters();
    handle(kBind, 0);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    handle(kBind, 0);
    board::sleepFor(100 * kMs);
    EXPECT_EQ(host.counter("capture.stops"), before.at("capture.stops"));
    EXPECT_EQ(host.counter("playback.stops"), before.at("playback.stops"));
    EXPECT_TRUE(told().empty());

    look();
    queue(kUnbind, 0);
    queue(kUnbind, 0);
    ASSERT_TRUE(hasThreads(board::kIdleThreads));
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=2, bindbad=0"), 2);
    EXPECT_EQ(said("intfUpdate to 0, current state 1"), 2);
    EXPECT_TRUE(board::waitFor([this] { return told().size() == 2; }));
    EXPECT_EQ(told()[0].data + told()[1].data, 0U);
    handle(kBind, 0);
    EXPECT_EQ(findDamage(), "");
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
        ASSERT_TRUE(hasThreads(board::kIdleThreads));
    }
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Binding, ComesAfterBothStreamsWhichWaitForTheirNextStart) {
    host.command("unbind");
    start();
    EXPECT_EQ(daemon.count("UAC Vexa is disabled, bindcnt=0, bindbad=0"), 1);
    app->waitForMessages(1);
    look();
    host.command("speaker on");
    host.command("mic on");
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("Speaker active while USB is not binded, will try binding it now, bindbad=1"),
              1);
    EXPECT_EQ(said("Mic active while USB is not binded, will try binding it now, bindbad=2"), 1);
    EXPECT_EQ(said("Audio gadget driver is not ready."), 2);
    EXPECT_EQ(said("devName not set"), 2);
    host.command("bind");
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    board::sleepFor(kSecond);
    EXPECT_TRUE(told().empty());
    EXPECT_TRUE(hasThreads(board::kIdleThreads));
    handle(kSpeakerOn, 1);
    expectTold({{kSpeaker, 1}});
    EXPECT_EQ(findDamage(), "");
}

// The unbind meets a stop at each of its counts: the stop ends without the names, and a bind and a
// start right after it do not meet the old stream.
TEST_F(Binding, EndsWhileBothStreamsAreStopping) {
    start();
    int stopping = 0;
    for (board::Ns delay = 0; delay <= 20 * kMs; delay += kMs) {
        SCOPED_TRACE(delay);
        handle(kSpeakerOn, 1);
        handle(kMicOn, 1);
        board::sleepFor(30 * kMs);
        look();
        queue(kSpeakerOn, 0);
        queue(kMicOn, 0);
        board::sleepFor(delay);
        queue(kUnbind, 0);
        ASSERT_TRUE(hasThreads(board::kIdleThreads));
        EXPECT_TRUE(board::waitFor([this] { return told().size() == 2; }));
        EXPECT_EQ(said("UAF channel stopped. Current state is (2)"), 2);
        stopping += said("intfUpdate to 0, current state 2");
        const auto counters = host.counters();
        EXPECT_EQ(counters.at("capture.opens"), counters.at("capture.closes"));
        EXPECT_EQ(counters.at("playback.opens"), counters.at("playback.closes"));
        handle(kBind, 0);
    }
    EXPECT_GE(stopping, 20);  // the unbind came while a stream was stopping
    EXPECT_EQ(findDamage(), "");
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
        board::sleepFor(100 * kMs);  // longer than a stop waits
        EXPECT_TRUE(hasThreads(last != 0 ? board::kStreamingThreads : board::kIdleThreads));
    }
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
