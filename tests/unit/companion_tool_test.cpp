// The companion tool as a process beside the daemon's ends: what it prints, sends, records and
// plays, and its exit status.
#include "tests/support/companion_tool.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <regex>
#include <sndfile.h>
#include <uafd_companion.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "tests/support/streaming_daemon.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using Message = DaemonEnds::Message;

// ---- Messages ----------------------------------------------------------------------------------

TEST_F(ToolTest, SetsVolumeAndMuteBesideAnotherApp) {
    daemon.bindSocket();
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    EXPECT_EQ(run({"volume", "-1280"}), 0);
    EXPECT_EQ(run({"mute", "on"}), 0);
    EXPECT_EQ(run({"mute", "off"}), 0);
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{3, static_cast<uint16_t>(-1280)},
                                               Message{5, 1}, Message{5, 0}));
}

TEST_F(ToolTest, SaysThatNoDaemonRuns) {
    EXPECT_EQ(run({"volume", "0"}), 1);
    EXPECT_EQ(tool->errors(), "uafd-companion: volume: no daemon runs\n");
    EXPECT_EQ(run({"mute", "on"}), 1);
    EXPECT_EQ(tool->errors(), "uafd-companion: mute: no daemon runs\n");
}

TEST_F(ToolTest, LeavesAnotherAppAlone) {
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    for (const char* command : {"loop", "play", "meter", "events", "latency", "check"}) {
        EXPECT_EQ(run({command}), 1) << command;
        EXPECT_EQ(tool->errors(), "uafd-companion: opening: another app has it\n");
    }
}

TEST_F(ToolTest, SaysThatAFifoIsNone) {
    folder.write("usbAudioFifoTx", "");
    EXPECT_EQ(run({"loop"}), 1);
    EXPECT_EQ(tool->errors(),
              "uafd-companion: opening: something that is no FIFO has a FIFO's name\n");
}

TEST_F(ToolTest, PrintsEventsWithTheirTime) {
    daemon.bindSocket();
    start({"events", "--count", "15"});
    std::vector<Message> asked;
    ASSERT_TRUE(waitFor([&] { return !(asked = daemon.messages()).empty(); }));
    EXPECT_THAT(asked, testing::Each(Message{7, 0}));
    const Message told[] = {{0, 1}, {0, 0}, {1, 1}, {1, 0}, {2, 1}, {2, 0}, {3, 0xFFFF}, {4, 512},
                            {5, 1}, {5, 0}, {6, 1}, {6, 0}, {9, 9}, {0, 1}, {1, 1},      {2, 1}};
    for (const Message& message : told) {
        ASSERT_TRUE(waitFor([&] { return daemon.send(message.first, message.second) != EAGAIN; }));
    }
    EXPECT_EQ(tool->wait(), 0);
    const std::string lines = tool->output();
    EXPECT_EQ(
        std::regex_replace(lines, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )"), "@"),
        "@daemon there\n@usb configured\n@usb disconnected\n@speaker on\n@speaker off\n@microphone "
        "on\n"
        "@microphone off\n@speaker volume -1\n@microphone volume 512\n@speaker muted\n"
        "@speaker sounds\n@microphone muted\n@microphone sounds\n@usb configured\n"
        "@speaker on\n");
}

TEST_F(ToolTest, SaysThatItWaitsForADaemon) {
    start({"events"});
    EXPECT_TRUE(waitFor([&] { return !tool->errors().empty(); }));
    EXPECT_EQ(tool->errors(), "uafd-companion: still waiting: no daemon runs\n");
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 128 + SIGINT);
}

// ---- Sound -------------------------------------------------------------------------------------

TEST_F(ToolTest, RecordsWhatTheHostPlays) {
    start({"record", file("heard.wav"), "--seconds", "0.01"});
    ASSERT_TRUE(waitForFile("FifoTx"));
    ASSERT_TRUE(daemon.openFifos());
    daemon.play(ramp(600));
    daemon.play(ramp(600));
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_EQ(tool->errors(), "0.010 s recorded\n");
    SF_INFO info{};
    Samples expected = ramp(600);
    const Samples more = ramp(360);
    expected.insert(expected.end(), more.begin(), more.end());
    EXPECT_EQ(readWav(file("heard.wav"), &info), expected);
    EXPECT_EQ(info.samplerate, 48000);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
}

TEST_F(ToolTest, LeavesAWholeFileWhenItIsInterrupted) {
    for (const int signal : {SIGINT, SIGTERM}) {
        start({"record", file("heard.wav")});
        ASSERT_TRUE(waitForFile("FifoTx"));
        ASSERT_TRUE(daemon.openFifos());
        daemon.play(ramp(480));
        ASSERT_TRUE(waitFor([&] {
            int unread = 0;
            return ioctl(daemon.speakerFd(), FIONREAD, &unread) == 0 && unread == 0;
        }));
        tool->send(signal);
        EXPECT_EQ(tool->wait(), 0);
        SF_INFO info{};
        EXPECT_EQ(readWav(file("heard.wav"), &info), ramp(480));
        daemon.end();
    }
}

TEST_F(ToolTest, SaysThatItCannotWriteAFile) {
    EXPECT_EQ(run({"record", "/nonexistent/heard.wav"}), 1);
    EXPECT_THAT(tool->errors(), HasSubstr("uafd-companion: /nonexistent/heard.wav: "));
}

class Played : public ToolTest, public testing::WithParamInterface<int> {};

// Every sample of the left channel, from the first on, and silence to the block's end.
TEST_P(Played, FileIsHeardWhole) {
    const int channels = GetParam();
    Samples samples;
    for (const int16_t sample : ramp(1000)) {
        samples.push_back(sample);
        if (channels == 2) {
            samples.push_back(-1);
        }
    }
    writeWav(file("said.wav"), samples, channels, 48000);
    start({"play", file("said.wav")});
    ASSERT_TRUE(waitForFile("FifoTx"));
    ASSERT_TRUE(daemon.openFifos());
    Samples expected = ramp(1000);
    expected.resize(1440);
    EXPECT_EQ(recordUntil([](const Samples&) { return false; }), expected);
    EXPECT_EQ(tool->wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Channels, Played, testing::Values(1, 2),
                         testing::PrintToStringParamName());

TEST_F(ToolTest, SaysThatItCannotPlayAFile) {
    EXPECT_EQ(run({"play", file("none.wav")}), 1);
    EXPECT_THAT(tool->errors(), HasSubstr("none.wav: "));
    writeWav(file("slow.wav"), ramp(100), 1, 44100);
    EXPECT_EQ(run({"play", file("slow.wav")}), 1);
    EXPECT_EQ(tool->errors(),
              "uafd-companion: " + file("slow.wav") + ": its rate is not 48000 Hz\n");
}

TEST_F(ToolTest, PlaysATone) {
    start({"play", "--tone", "480", "--level", "-6", "--seconds", "0.1"});
    ASSERT_TRUE(waitForFile("FifoTx"));
    ASSERT_TRUE(daemon.openFifos());
    const Samples heard = recordUntil([](const Samples&) { return false; });
    EXPECT_EQ(tool->wait(), 0);
    ASSERT_EQ(heard.size(), 4800U);
    for (size_t i = 0; i < heard.size(); ++i) {
        const double turns = static_cast<double>(i % 100) / 100;
        ASSERT_NEAR(heard[i], 32767 * std::pow(10, -0.3) * std::sin(2 * M_PI * turns), 1);
    }
}

TEST_F(ToolTest, GivesTheHostBackWhatItPlays) {
    start({"loop"});
    ASSERT_TRUE(waitForFile("FifoTx"));
    ASSERT_TRUE(daemon.openFifos());
    Samples stereo;
    for (const int16_t sample : ramp(1680)) {
        stereo.insert(stereo.end(), {sample, int16_t{-1}});
    }
    const auto until = [](int16_t last) {
        return [last](const Samples& left) {
            return std::find(left.begin(), left.end(), last) != left.end();
        };
    };
    // Two blocks and a half, of which the half waits for more.
    daemon.play(Samples(stereo.begin(), stereo.begin() + 2400));
    Samples heard = recordUntil(until(960));
    EXPECT_EQ(daemon.record(), Samples(960));
    daemon.play(Samples(stereo.begin() + 2400, stereo.end()));
    const Samples more = recordUntil(until(1440));
    heard.insert(heard.end(), more.begin(), more.end());
    heard.erase(std::remove(heard.begin(), heard.end(), 0), heard.end());
    EXPECT_EQ(heard, ramp(1440));
    tool->send(SIGTERM);
    EXPECT_EQ(tool->wait(), 0);
}

TEST_F(ToolTest, ShowsTheLevel) {
    StreamingOptions options;
    options.left = options.right = 3277;  // 20 dB below full scale, all of it
    const StreamingDaemon streaming(folder, options);
    EXPECT_EQ(run({"meter", "--seconds", "1"}), 0);
    EXPECT_THAT(tool->output(), HasSubstr(" speaker on   peak -20.0 dB  rms -20.0 dB  |" +
                                          std::string(28, '#') + std::string(20, ' ') + "|\n"));
}

TEST_F(ToolTest, ShowsSilence) {
    EXPECT_EQ(run({"meter", "--seconds", "0.1"}), 0);
    EXPECT_EQ(tool->output(),
              " speaker off  peak -96.0 dB  rms -96.0 dB  |" + std::string(48, ' ') + "|\n");
}

// ---- Latency -----------------------------------------------------------------------------------

TEST_F(ToolTest, MeasuresTheWayToTheHostAndBack) {
    StreamingOptions options;
    options.left = options.right = 0;
    options.echoes = true;
    const StreamingDaemon streaming(folder, options);
    EXPECT_EQ(run({"latency", "--count", "3"}), 0);
    EXPECT_EQ(tool->errors(), "");
    const std::string number = " *[0-9]+\\.[0-9]+ ms";
    EXPECT_THAT(tool->output(),
                MatchesRegex(number + "\n" + number + "\n" + number + "\nmedian" + number +
                             ", least" + number + ", most" + number + "\n"));
}

TEST_F(ToolTest, SaysWhyItCannotMeasure) {
    StreamingOptions options;
    options.left = options.right = 0;
    {
        const StreamingDaemon deaf(folder, options);
        EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
        EXPECT_EQ(tool->errors(),
                  "uafd-companion: no burst came back: does the host play what it records?\n");
    }
    options.records = false;
    {
        const StreamingDaemon mute(folder, options);
        EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
        EXPECT_EQ(tool->errors(),
                  "uafd-companion: the daemon takes no sound: does the host record?\n");
    }
    options.left = options.right = 2000;
    options.records = true;
    const StreamingDaemon loud(folder, options);
    EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
    EXPECT_EQ(tool->errors(),
              "uafd-companion: the host plays something else: the bursts cannot be told from it\n");
}

// ---- Check -------------------------------------------------------------------------------------

TEST_F(ToolTest, ChecksADaemonThatIsNotThere) {
    EXPECT_EQ(run({"check", "--wait", "0.1"}), 1);
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  a sync-up is answered: no answer\n"));
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  the speaker's volume is taken: no daemon runs\n"));
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  the speaker's mute is taken: no daemon runs\n"));
    EXPECT_THAT(tool->output(), HasSubstr("\n0 passed, 9 failed\n"));
}

TEST_F(ToolTest, DoesNotPassACheckThatIsInterrupted) {
    start({"check"});
    ASSERT_TRUE(waitFor([&] { return !tool->errors().empty(); }));
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_EQ(tool->output(), "0 passed, 0 failed, interrupted\n");
}

// A daemon with a fault, and what the check of it says.
struct Fault {
    Fault(const char* verdict, StreamingOptions options)
        : line(std::string("FAIL  ") + verdict + "\n"),
          streaming(folder, std::move(options)),
          tool({TOOL_PROGRAM, "check", "--wait", "2", "--directory", folder.path()}) {}

    const std::string line;
    const TempDir folder;
    const StreamingDaemon streaming;
    ChildProcess tool;
};

StreamingOptions answering(std::vector<Message> answer) {
    StreamingOptions options;
    options.answer = std::move(answer);
    return options;
}

StreamingOptions playing(int16_t left, int16_t right) {
    StreamingOptions options;
    options.left = left;
    options.right = right;
    return options;
}

StreamingOptions streaming(bool plays, bool records) {
    StreamingOptions options;
    options.plays = plays;
    options.records = records;
    return options;
}

// All at once: a check takes its time.
TEST_F(ToolTest, FindsAFaultyDaemonOut) {
    Fault faults[] = {
        {"a sync-up is answered: no answer", answering({})},
        {"a sync-up is answered: the answer is not whole", answering({{0, 1}})},
        {"a sync-up is answered: the host has not configured the board", answering({{0, 0}})},
        {"the speaker stream is on: it is off: does the host play?",
         answering({{0, 1}, {1, 0}, {2, 1}})},
        {"the microphone stream is on: it is off: does the host record?",
         answering({{0, 1}, {1, 1}, {2, 0}})},
        {"the host's sound comes whole: left and right differ", playing(1, 2)},
        {"the host's sound comes whole: nothing but silence: does the host play?", playing(0, 0)},
        {"the host's sound comes whole: no frame came", streaming(false, true)},
        {"the app's sound is taken: no block is taken", streaming(true, false)},
    };
    for (Fault& fault : faults) {
        SCOPED_TRACE(fault.line);
        const auto verdict = [&] { return fault.tool.output().find(fault.line); };
        EXPECT_TRUE(waitFor([&] { return verdict() != std::string::npos; })) << fault.tool.output();
        fault.tool.send(SIGTERM);
        EXPECT_EQ(fault.tool.wait(), 1);
    }
}

}  // namespace
