// SPDX-License-Identifier: Apache-2.0
// The daemon's log, line by line, from its first line on. A phase is one event and all that the
// daemon logs about it: every line of every thread, in the thread's order, and no other line.
#include <algorithm>
#include <map>
#include <numeric>

#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;
using ThreadLog = std::vector<std::string>;

constexpr char kController[] = "/run/properties/sys.usb.controller";

bool matchesAll(const ThreadLog& lines, const ThreadLog& wanted) {
    return std::equal(
        lines.begin(), lines.end(), wanted.begin(), wanted.end(),
        [](const std::string& line, const std::string& text) { return matches(line, text); });
}

class DaemonLog : public BoardCase {
  protected:
    // A board without the cable's fault, which logs no line every second.
    void SetUp() override { put(kController, "fe800000.usb"); }
    void TearDown() override { put(kController, "ff300000.usb"); }

    // `wanted` has one list of lines for each thread that logs something, in any order.
    void expectPhase(const char* phase, const std::vector<ThreadLog>& wanted) {
        SCOPED_TRACE(phase);
        const size_t lines =
            std::accumulate(wanted.begin(), wanted.end(), size_t{0},
                            [](size_t sum, const ThreadLog& log) { return sum + log.size(); });
        waitFor([&] { return daemon.mark() >= logMark + lines; });
        sleepFor(100 * kMs);  // for a line too many
        std::map<int, ThreadLog> threads;
        for (size_t i = logMark; i < daemon.log().size(); ++i) {
            threads[daemon.log()[i].tid].push_back(daemon.log()[i].brief());
        }
        logMark = daemon.mark();
        for (const ThreadLog& log : wanted) {
            const auto found =
                std::find_if(threads.begin(), threads.end(),
                             [&](const auto& thread) { return matchesAll(thread.second, log); });
            if (found == threads.end()) {
                ADD_FAILURE() << "no thread says:" << testing::PrintToString(log);
            } else {
                threads.erase(found);
            }
        }
        EXPECT_TRUE(threads.empty()) << "not expected:" << testing::PrintToString(threads);
    }

    // The event loop's line about a record.
    static std::string record(int type, const char* data, const char* state) {
        return "D UAFIFO: read msg: type=" + std::to_string(type) + ", data=0x" + data +
               ", size=8; state={" + state + "}";
    }

    // The chapters of the whole story, in order.
    void startAndBind();
    void switchStreamsOn();
    void changeVolumesAndMutes();
    void hearFromTheApp();
    void switchStreamsOff();
    void pullTheCableAndUnbind();

  private:
    size_t logMark = 0;
};

constexpr char kFresh[] = "cardnum:-1 bindcnt=0 bindbad:0";
constexpr char kBound[] = "cardnum:1 bindcnt=1 bindbad:0";

void DaemonLog::startAndBind() {
    start();
    expectPhase("start",
                {{"D UAFIFO: use /tmp/usbAudioFifoRx and /tmp/usbAudioFifoTx",
                  "D UAFIFO: Fifos observed for /tmp/usbAudioFifoRx after 0 attempts, "
                  "/tmp/usbAudioFifoTx after 0 attempts",
                  "E UAFIPC: unlink failed err 2, path does not exist ... ignoring",
                  record(0, "00000000", kFresh), "D UAFIFO: UAC Vexa is enabled, using hw:1",
                  record(4, "00000000", kBound),
                  "D UAFCH: setVolume volume=0, sending: type=0x00000003, data=0x00000000",
                  record(5, "00000000", kBound),
                  "D UAFCH: setVolume volume=0, sending: type=0x00000004, data=0x00000000",
                  record(6, "00000000", kBound),
                  "D UAFCH: setMute mute=0, sending: type=0x00000005, data=0x00000000",
                  record(7, "00000000", kBound),
                  "D UAFCH: setMute mute=0, sending: type=0x00000006, data=0x00000000"},
                 {"D UAFIPC: rxLoop: starting"},
                 {"D UAFIPC: txLoop: starting"},
                 {"D UAFCBM: Initial USB state is CONFIGURED", "D UAFCBM: enter loop"}});

    host.command("unbind");
    expectPhase("unbind",
                {{record(1, "00000000", kBound), "D UAFCH: intfUpdate to 0, current state 3",
                  "D UAFCH: intfUpdate to 0, current state 3",
                  "D UAFIFO: UAC Vexa is disabled, bindcnt=0, bindbad=0"}});
    host.command("bind");
    expectPhase("bind",
                {{record(0, "00000000", kFresh), "D UAFIFO: UAC Vexa is enabled, using hw:1"}});
}

void DaemonLog::switchStreamsOn() {
    host.command("speaker on");
    expectPhase(
        "speaker on",
        {{record(2, "00000001", kBound), "D UAFCH: intfUpdate to 1, current state 3",
          "D UAFSNK: start, opening hw:1"},
         {"D UAFSNK: synch startup ok", "D UAFSNK: /tmp/usbAudioFifoRx opened buffer size 4096",
          "D UAFSNK: loopcnt 0, pcmRead #, fifoWrite 960"}});
    host.command("mic on");
    expectPhase(
        "mic on",
        {{record(3, "00000001", kBound), "D UAFCH: intfUpdate to 1, current state 3",
          "D UAFSRC: init SSRS", "D UAFSRC: start, opening hw:1"},
         {"D UAFSRC: loopcnt 0, pcmWrite 240"},
         {"D UAFSRC: enter buffer loop", "D UAFSRC: /tmp/usbAudioFifoTx opened buffer size 4096",
          "D UAFSRC: buffer loopcnt 0, fifoRead 1920"}});
}

void DaemonLog::changeVolumesAndMutes() {
    host.command("volume speaker -1280");
    host.command("volume mic 258");
    expectPhase("volume",
                {{record(4, "#", kBound),
                  "D UAFCH: setVolume volume=-1280, sending: type=0x00000003, data=0x0000FB00",
                  record(5, "#", kBound),
                  "D UAFCH: setVolume volume=258, sending: type=0x00000004, data=0x00000102"}});
    host.command("mute speaker 1");
    host.command("mute mic 1");
    expectPhase("mute", {{record(6, "00000001", kBound),
                          "D UAFCH: setMute mute=1, sending: type=0x00000005, data=0x00000001",
                          record(7, "00000001", kBound),
                          "D UAFCH: setMute mute=1, sending: type=0x00000006, data=0x00000001"}});
}

void DaemonLog::hearFromTheApp() {
    app->send({3, 0xFFFF});
    app->send({5, 7});
    expectPhase("volume and mute of the app", {{"D UAFIPC: got speaker volume msg: volume=-1",
                                                "D UAFIPC: got speaker volume mute msg: mute=7"}});
    app->send({7, 0});
    expectPhase("sync-up", {{"D UAFIPC: app request init state sync up"}});
    app->send({4, 0x1234ABCD});
    app->sendBytes("four", 4);
    expectPhase("invalid messages", {{"E UAFIPC: got unknown msg: type=4, msg: 0x1234ABCD",
                                      "E UAFIPC: unexpected msg size: 4"}});
}

void DaemonLog::switchStreamsOff() {
    host.command("speaker off");
    expectPhase("speaker off",
                {{record(2, "00000000", kBound), "D UAFCH: intfUpdate to 0, current state 1"},
                 {"D UAFSNK: timeout0, rc=0", "D UAFSNK: stop, closing hw:1",
                  "D UAFSNK: stop, closing /tmp/usbAudioFifoRx",
                  "D UAFCH: UAF channel stopped. Current state is (2)",
                  "D UAFSNK: exit, loopcnt=#, pcmRead #, fifoWrite #"}});
    host.command("mic off");
    expectPhase(
        "mic off",
        {{record(3, "00000000", kBound), "D UAFCH: intfUpdate to 0, current state 1"},
         {"D UAFSRC: timeout0, rc=0", "D UAFSRC: stopping buffer thread",
          "D UAFSRC: stop, close hw:1", "D UAFCH: UAF channel stopped. Current state is (2)",
          "D UAFSRC: exit, loopcnt=#, pcmWrite #"},
         {"D UAFSRC: exit buffer loop, loopcnt=#, fifoRead #"}});
}

void DaemonLog::pullTheCableAndUnbind() {
    host.command("unplug");
    expectPhase("unplug", {{"D UAFCBM: subsystem: android_usb, action: 3, usbstate=DISCONNECTED"}});
    host.command("plug");
    expectPhase("plug", {{"D UAFCBM: subsystem: android_usb, action: 3, usbstate=CONNECTED",
                          "D UAFCBM: subsystem: android_usb, action: 3, usbstate=CONFIGURED"}});
    host.command("unbind");
    expectPhase("unbind at the end",
                {{record(1, "00000000", kBound), "D UAFCH: intfUpdate to 0, current state 3",
                  "D UAFCH: intfUpdate to 0, current state 3",
                  "D UAFIFO: UAC Vexa is disabled, bindcnt=0, bindbad=0"}});
}

TEST_F(DaemonLog, TellsTheWholeStoryLineByLine) {
    startAndBind();
    switchStreamsOn();
    changeVolumesAndMutes();
    hearFromTheApp();
    switchStreamsOff();
    pullTheCableAndUnbind();
}

// Bind, unbind and start while unbound: each line's counters, and the texts of a new attempt.
TEST_F(DaemonLog, CountsBindsAndActivationsWhileUnbound) {
    start();
    host.command("bind");
    host.command("record 1 0");
    host.command("record 2 1");
    host.command("record 1 0");
    settle();
    EXPECT_EQ(daemon.count("read msg: type=0, data=0x00000000, size=8; "
                           "state={cardnum:1 bindcnt=1 bindbad:0}"),
              1);
    EXPECT_EQ(daemon.count("read msg: type=1, data=0x00000000, size=8; "
                           "state={cardnum:1 bindcnt=2 bindbad:0}"),
              1);
    EXPECT_EQ(daemon.count("UAC Vexa is disabled, bindcnt=1, bindbad=0"), 1);
    EXPECT_EQ(daemon.count("Speaker active while USB is not binded, will try binding it now, "
                           "bindbad=1"),
              1);
    EXPECT_EQ(daemon.count("UAC Vexa is disabled, bindcnt=0, bindbad=1"), 1);
}

TEST_F(DaemonLog, ShowsThatItWaitsForTheFifos) {
    micService = std::make_unique<MicService>();
    daemon.start();
    ASSERT_TRUE(
        daemon.waitForLog("/tmp/usbAudioFifoRx is not available yet. Waiting for creation..."));
    sleepFor(2 * kSecond);
    EXPECT_EQ(daemon.mark(), 2U);  // one line for 1500 attempts
    app = std::make_unique<App>();
    ASSERT_TRUE(
        daemon.waitForLog("Fifos observed for /tmp/usbAudioFifoRx after # attempts, "
                          "/tmp/usbAudioFifoTx after 0 attempts"));
    EXPECT_EQ(daemon.log()[0].brief(), "D UAFIFO: use /tmp/usbAudioFifoRx and /tmp/usbAudioFifoTx");
    EXPECT_EQ(daemon.log()[1].level, 'D');
    EXPECT_EQ(daemon.log()[2].level, 'D');
}

TEST_F(DaemonLog, ShowsAStartWithoutMicrophoneService) {
    start(false);
    const size_t mark = daemon.mark();
    host.command("speaker on");
    ASSERT_TRUE(daemon.waitForLog("loopcnt 0, pcmRead 240, fifoWrite 960", mark));
    EXPECT_EQ(daemon.count("synch startup failed", mark), 1);
    EXPECT_EQ(daemon.count("synch startup ok", mark), 0);
}

// The board with the cable's fault checks the cable about once a second.
TEST_F(DaemonLog, ShowsATickASecondOnTheBoardWithTheCableFault) {
    constexpr char kTick[] =
        "recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for RK-based "
        "SoC";
    put(kController, "ff300000.usb");
    start();
    ASSERT_TRUE(daemon.waitForLog(kTick, 0, 10, 15 * kSecond));
    std::vector<Ns> ticks;
    for (const LogLine& line : daemon.log()) {
        if (line.text == kTick) {
            EXPECT_EQ(line.level, 'D');
            EXPECT_EQ(line.tag, "UAFCBM");
            ticks.push_back(line.at);
        }
    }
    for (size_t i = 1; i < ticks.size(); ++i) {
        EXPECT_NEAR(static_cast<double>(ticks[i] - ticks[i - 1]), static_cast<double>(kSecond),
                    static_cast<double>(50 * kMs));
    }
}

}  // namespace
}  // namespace uafd
