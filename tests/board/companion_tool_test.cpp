// The companion tool on the board, as somebody at its shell uses it: the daemon in between, the
// host behind it.
#include <atomic>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/board/board_case.h"
#include "tests/board/support/host_player.h"
#include "tests/support/child_process.h"

namespace {

using board::kRate;
using board::kSecond;
using board::Ns;
using testing::HasSubstr;

constexpr char kTool[] = "/bin/uafd-companion";

class CompanionTool : public BoardCase {
  protected:
    ChildProcess& start(std::vector<std::string> words) {
        words.insert(words.begin(), kTool);
        return tool_.emplace(words);
    }
    // The tool is the app for whose FIFO ends the daemon waits.
    void startWithDaemon(const std::vector<std::string>& words) {
        micService = std::make_unique<board::MicService>();
        start(words);
        daemon.start();
        ASSERT_TRUE(daemon.waitForLog("Fifos observed*"));
    }
    void bothOn() {
        host.command("speaker on");
        host.command("mic on");
    }
    // What it printed when it has ended as it should.
    std::string outputAfter(int status) {
        EXPECT_EQ(tool_->wait(), status) << tool_->errors();
        return tool_->output();
    }

    std::optional<ChildProcess> tool_;
};

// The host gives back what it records, as a cable would.
class HostCable {
  public:
    HostCable() : thread_([this] { run(); }) {}
    ~HostCable() {
        stop_ = true;
        thread_.join();
    }

  private:
    void run() {
        const board::Fd ear = board::Fd::open("/dev/usb_host_mic", O_RDONLY | O_NONBLOCK);
        const board::Fd mouth = board::Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
        while (!stop_) {
            char sound[4800];
            const ssize_t got = read(ear.get(), sound, sizeof sound);
            if (got > 0) {
                EXPECT_EQ(write(mouth.get(), sound, static_cast<size_t>(got)), got);
            }
            board::sleepFor(board::kMs);
        }
    }

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

constexpr char kAllPassed[] =
    "ok    a sync-up is answered\n"
    "ok    the speaker's volume is taken\n"
    "ok    the speaker's mute is taken\n"
    "ok    the speaker stream is on\n"
    "ok    the host's sound comes whole\n"
    "ok    the microphone stream is on\n"
    "ok    the app's sound is taken\n"
    "ok    both go on with new FIFO ends\n"
    "ok    the states are as told\n"
    "9 passed, 0 failed\n";

TEST_F(CompanionTool, FindsTheDaemonGood) {
    const board::HostPlayer player(board::noise);
    bothOn();
    const Ns since = board::now();
    startWithDaemon({"check", "--volume", "-1280"});
    EXPECT_EQ(outputAfter(0), kAllPassed);
    EXPECT_EQ(host.countEvents("uac SET_SPK_VOLUME -1280 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 1 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 0 0", since), 1);
}

TEST_F(CompanionTool, FindsThatAFrozenDaemonDoesNotAnswer) {
    const board::HostPlayer player(board::noise);
    bothOn();
    startWithDaemon({"loop"});
    ASSERT_TRUE(hasThreads(board::kStreamingThreads));
    daemon.freeze();
    start({"check", "--wait", "0.5"});
    EXPECT_THAT(outputAfter(1), HasSubstr("FAIL  a sync-up is answered: no answer\n"));
    daemon.thaw();
    start({"check"});
    EXPECT_EQ(outputAfter(0), kAllPassed);
}

TEST_F(CompanionTool, FindsWhatTheHostLeavesUndone) {
    startWithDaemon({"check", "--wait", "0.5"});
    const std::string output = outputAfter(1);
    EXPECT_THAT(output, HasSubstr("ok    the speaker's mute is taken\n"));
    EXPECT_THAT(output,
                HasSubstr("FAIL  the speaker stream is on: it is off: does the host play?"));
    EXPECT_THAT(output,
                HasSubstr("FAIL  the microphone stream is on: it is off: does the host record?"));
    EXPECT_THAT(output, HasSubstr("FAIL  both go on with new FIFO ends: "));
}

TEST_F(CompanionTool, RecordsPlaysAndTells) {
    const board::HostPlayer player(board::ramp);
    ASSERT_TRUE(board::waitFor([&] { return player.queued() > kRate; }));
    startWithDaemon({"record", "/out/heard.wav", "--seconds", "1"});
    bothOn();
    EXPECT_EQ(outputAfter(0), "");
    const board::Samples heard = board::readWav("/out/heard.wav");
    ASSERT_EQ(heard.size(), static_cast<size_t>(kRate));
    for (size_t i = board::firstSound(heard) + 1; i < heard.size(); ++i) {
        ASSERT_EQ(heard[i], static_cast<int16_t>(heard[i - 1] + 1)) << i;
    }

    const board::Samples speech = board::render(board::noise, 0, kRate);
    board::writeWav("/out/said.wav", speech);
    host.takeRecording();
    start({"play", "/out/said.wav"});
    outputAfter(0);
    board::sleepFor(kSecond / 10);
    const board::Samples recorded = host.takeRecording();
    // From its beginning on, but for a frame here and there that latency control bends.
    const auto first = static_cast<size_t>(std::find(recorded.begin(), recorded.end(), speech[0]) -
                                           recorded.begin());
    ASSERT_EQ(board::find(recorded, first, speech), 0);
    EXPECT_GE(recorded.size() - first, speech.size());

    start({"events", "--count", "3"});
    const std::string events = outputAfter(0);
    EXPECT_THAT(events, HasSubstr(" usb configured\n"));
    EXPECT_THAT(events, HasSubstr(" speaker on\n"));
    EXPECT_THAT(events, HasSubstr(" microphone on\n"));
}

TEST_F(CompanionTool, MeasuresTheLatencyOfACable) {
    const HostCable cable;
    bothOn();
    startWithDaemon({"latency", "--count", "3"});
    const std::string output = outputAfter(0);
    double median = 0;
    ASSERT_EQ(sscanf(output.c_str(), "%*f ms\n%*f ms\n%*f ms\nmedian %lf ms", &median), 1)
        << output;
    printf("%s", output.c_str());
    // 5 ms up to the host's, 10 to 20 ms down, and the cable's own way.
    EXPECT_GT(median, 15);
    EXPECT_LT(median, 60);
}

}  // namespace
