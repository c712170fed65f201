// SPDX-License-Identifier: Apache-2.0
// A stream cannot be set up, at each step that can fail: the log names the step, the app is told
// nothing, and the next start cleans up and succeeds.
#include <cstdlib>
#include <unistd.h>

#include "board/kit/files.h"
#include "tests/board/scenarios/stream_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr char kFailingAlsa[] = "/tests/libfailing_alsa.so";
constexpr char kOrder[] = "/tmp/failing_alsa";

// Steps of uafStart, for the speaker and the microphone.
struct Step {
    int speaker;
    int mic;
};
constexpr Step kOpen{90, 204};
constexpr Step kHardware{92, 206};
constexpr Step kSoftware{94, 208};
constexpr Step kFirstData{100, 214};

// A fault of the driver and the step of setHwParams at which it shows.
struct HardwareFault {
    const char* fault;
    int step;
};
constexpr HardwareFault kHardwareFaults[] = {
    {"config 5", 112},   {"access 5", 118},    {"format 5", 122},
    {"channels 5", 126}, {"rate 5", 132},      {"buffer 5", 140},
    {"period 5", 147},   {"hw_params 5", 152}, {"prepare 5", 152},
};

// A call of alsa-lib and its step of setSwParams.
struct SoftwareFault {
    const char* call;
    int step;
};
constexpr SoftwareFault kSoftwareFaults[] = {
    {"snd_pcm_sw_params_current", 73},
    {"snd_pcm_sw_params_set_start_threshold", 77},
    {"snd_pcm_sw_params_set_stop_threshold", 81},
    {"snd_pcm_sw_params_set_avail_min", 85},
    {"snd_pcm_sw_params", 89},
};

class FailingStart : public StreamCase {
  protected:
    void SetUp() override {
        unlink(kOrder);
        setenv("LD_PRELOAD", kFailingAlsa, 1);
        start();
        unsetenv("LD_PRELOAD");
    }

    Lines errorsSince(const Moment& since) {
        Lines errors;
        const auto& log = daemon.log();
        for (size_t i = since.log; i < log.size(); ++i) {
            if (log[i].level == 'E') {
                errors.push_back(log[i].brief());
            }
        }
        return errors;
    }
    static std::string says(const std::string& what) {
        return std::string("E ") + direction().tag + ": " + what;
    }

    // The host starts the stream and it fails: the log names the step, after what led to it. Once
    // the fault is over the stream starts.
    void expectFailure(const Lines& cause, const Step& step) {
        const Moment before = mark();
        host.command(std::string(direction().name) + " on");
        ASSERT_TRUE(daemon.waitForLog("failed to start audio", before.log));
        const int number = either(step.speaker, step.mic);
        const Lines report{says("error at uafStart@" + std::to_string(number) + ": rc=-5"),
                           "E UAFCH: failed to start audio"};
        EXPECT_EQ(errorsSince(before), cause + report);
        EXPECT_TRUE(told(before).empty());
        host.command("fault clear");
        unlink(kOrder);
        const Moment again = mark();
        expectStartable();
        // A PCM that the failed start had opened is closed first.
        const bool opened = number != either(kOpen.speaker, kOpen.mic);
        EXPECT_EQ(errorsSince(again),
                  opened ? Lines{says("start, audio still open, trying to close")} : Lines{});
        switchOff();
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
};

TEST_P(FailingStart, InOpening) {
    arm("open 5");
    expectFailure({}, kOpen);
}

TEST_P(FailingStart, InEachHardwareParameter) {
    for (const HardwareFault& row : kHardwareFaults) {
        SCOPED_TRACE(row.fault);
        arm(row.fault);
        expectFailure({"E UAFSND: error at setHwParams@" + std::to_string(row.step) + ": rc=-5"},
                      kHardware);
    }
}

TEST_P(FailingStart, InEachSoftwareParameter) {
    for (const SoftwareFault& row : kSoftwareFaults) {
        SCOPED_TRACE(row.call);
        put(kOrder, std::string(row.call) + " -5");
        expectFailure({"E UAFSND: error at setSwParams@" + std::to_string(row.step) + ": err=-5"},
                      kSoftware);
    }
}

// The first data are the capture's start and the silence that starts the playback.
TEST_P(FailingStart, InTheFirstData) {
    arm(either("start 5", "ack 5"));
    expectFailure({}, kFirstData);
}

TEST_P(FailingStart, ManyTimesInARow) {
    constexpr int failures = 5;
    const Moment before = mark();
    arm("hw_params 5 times=" + std::to_string(failures));
    for (int i = 1; i <= failures; ++i) {
        host.command(std::string(direction().name) + " on");
        ASSERT_TRUE(daemon.waitForLog("failed to start audio", before.log, i));
    }
    EXPECT_EQ(said("start, audio still open, trying to close", before), failures - 1);
    EXPECT_TRUE(told(before).empty());
    // The microphone's buffer thread stays, and is idle.
    EXPECT_TRUE(hasThreads(kIdleThreads + either(0U, 1U)));
    expectStartable();
}

TEST_P(FailingStart, IsNoneAtAnotherRate) {
    const Moment before = mark();
    arm("other_rate 44100");
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSecond);
    sound.collect();
    EXPECT_EQ(said("warnning: rate is not accurate, want 48000 Hz, got 44100 Hz", before), 1);
    EXPECT_TRUE(errorsSince(before).empty());
    EXPECT_EQ(requests(before),
              (Lines{"open 0",
                     std::string("hw_params 0 rate=44100 channels=1 period=240 buffer=") +
                         either("2400", "720"),
                     "prepare 0", "start 0"}));
    EXPECT_EQ(told(before), (std::vector<Message>{{direction().channel, 1}}));
    EXPECT_TRUE(sound.breaks().empty());
    EXPECT_GT(sound.sections().back().frames, kSecond / kMs * 48 * 9 / 10);
}

INSTANTIATE_BOTH_DIRECTIONS(FailingStart);

}  // namespace
}  // namespace uafd
