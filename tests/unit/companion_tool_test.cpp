// SPDX-License-Identifier: Apache-2.0
// The companion tool as a process beside the daemon's ends: what it prints, sends, records and
// plays, and its exit status.
#include "tests/unit/companion_tool.h"

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

namespace uafd {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
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
    const std::pair<const char*, const char*> taken[] = {
        {"loop", "the speaker"},  {"meter", "the speaker"},   {"play", "the microphone"},
        {"check", "the speaker"}, {"latency", "the speaker"}, {"events", "the daemon's messages"}};
    for (const auto& [command, part] : taken) {
        EXPECT_EQ(run({command}), 1) << command;
        EXPECT_EQ(tool->errors(),
                  std::string("uafd-companion: opening: another app has ") + part + "\n");
    }
}

// Each command opens only the parts that it needs.
TEST_F(ToolTest, WorksBesideAnAppWithTheOtherParts) {
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_MIC | UAFD_EVENTS, folder.path().c_str()), 0);
    EXPECT_EQ(run({"record", file("heard.wav"), "--seconds", "0.01"}), 0);
    EXPECT_EQ(run({"meter", "--seconds", "0.01"}), 0);
    ASSERT_EQ(app.open(UAFD_SPEAKER | UAFD_EVENTS, folder.path().c_str()), 0);
    EXPECT_EQ(run({"play", "--seconds", "0.01"}), 0);
    ASSERT_EQ(app.open(UAFD_SOUND, folder.path().c_str()), 0);
    EXPECT_EQ(run({"events", "--seconds", "0.01"}), 0);
}

// The daemon waits for both FIFOs, even if the tool uses only one.
TEST_F(ToolTest, LetsADaemonStart) {
    for (const char* command : {"record", "play"}) {
        command == std::string("record") ? start({command, file("heard.wav")}) : start({command});
        ASSERT_TRUE(waitForFile("FifoRx") && waitForFile("FifoTx"));
        EXPECT_TRUE(daemon.openFifos()) << command;
        daemon.end();
    }
}

TEST_F(ToolTest, SaysThatThereIsNoSuchGroup) {
    EXPECT_EQ(run({"loop", "--group", "no such"}), 1);
    EXPECT_EQ(tool->errors(), "uafd-companion: opening: there is no group with this name\n");
}

TEST_F(ToolTest, SaysThatAFifoIsNone) {
    folder.write("usbAudioFifoTx", "");
    EXPECT_EQ(run({"loop"}), 1);
    EXPECT_THAT(tool->errors(), StartsWith("uafd-companion: opening: " + daemon.path("FifoTx")));
    EXPECT_THAT(tool->errors(), EndsWith(" is not a FIFO: remove it\n"));
}

constexpr Message kTold[] = {{0, 1}, {0, 0}, {1, 1}, {1, 0}, {2, 1}, {2, 0}, {3, 0xFFFF}, {4, 512},
                             {5, 1}, {5, 0}, {6, 1}, {6, 0}, {9, 9}, {0, 1}, {1, 1},      {2, 1}};

// A tool that prints the first fourteen of those.
class EventsTool : public ToolTest {
  protected:
    std::string outputOf(std::vector<std::string> words) {
        daemon.bindSocket();
        words.insert(words.begin(), {"events", "--count", "15"});
        start(words);
        std::vector<Message> asked;
        EXPECT_TRUE(eventually([&] { return !(asked = daemon.messages()).empty(); }));
        EXPECT_THAT(asked, Each(Message{7, 0}));
        for (const Message& message : kTold) {
            EXPECT_TRUE(
                eventually([&] { return daemon.send(message.first, message.second) != EAGAIN; }));
        }
        EXPECT_EQ(tool->wait(), 0);
        return tool->output();
    }
};

TEST_F(EventsTool, PrintsEventsWithTheirTime) {
    const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    EXPECT_EQ(std::regex_replace(outputOf({}), time, "@"),
              "@daemon there\n@usb configured\n@usb disconnected\n@speaker on\n@speaker "
              "off\n@microphone on\n"
              "@microphone off\n@speaker volume -1\n@microphone volume 512\n@speaker muted\n"
              "@speaker sounds\n@microphone muted\n@microphone sounds\n@usb configured\n"
              "@speaker on\n");
}

TEST_F(EventsTool, PrintsEventsAsJson) {
    const std::regex time(R"(\{"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z","event":)");
    EXPECT_EQ(std::regex_replace(outputOf({"--json"}), time, "@"),
              "@\"daemon_state\",\"value\":1}\n"
              "@\"usb_state\",\"value\":1}\n@\"usb_state\",\"value\":0}\n"
              "@\"speaker_state\",\"value\":1}\n@\"speaker_state\",\"value\":0}\n"
              "@\"mic_state\",\"value\":1}\n@\"mic_state\",\"value\":0}\n"
              "@\"speaker_volume\",\"value\":-1}\n@\"mic_volume\",\"value\":512}\n"
              "@\"speaker_mute\",\"value\":1}\n@\"speaker_mute\",\"value\":0}\n"
              "@\"mic_mute\",\"value\":1}\n@\"mic_mute\",\"value\":0}\n"
              "@\"usb_state\",\"value\":1}\n@\"speaker_state\",\"value\":1}\n");
}

TEST_F(ToolTest, SaysThatItWaitsForADaemon) {
    start({"events"});
    EXPECT_TRUE(eventually([&] { return !tool->errors().empty(); }));
    EXPECT_EQ(tool->errors(), "uafd-companion: waiting: no daemon runs\n");
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 0);
}

// ---- Status ------------------------------------------------------------------------------------

TEST_F(ToolTest, TellsTheStatus) {
    const StreamingDaemon streaming(folder, StreamingOptions::answering({{0, 1}, {1, 1}, {2, 0}}));
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_EQ(tool->output(),
              "daemon      running\nusb         configured\nspeaker     on\nmicrophone  off\n");
    EXPECT_EQ(run({"status", "--json"}), 0);
    EXPECT_EQ(
        tool->output(),
        R"({"daemon":"running","other_app":false,"usb_state":1,"speaker_state":1,"mic_state":0})"
        "\n");
}

TEST_F(ToolTest, TellsTheStatusWithoutAHost) {
    const StreamingDaemon streaming(folder, StreamingOptions::answering({{0, 0}}));
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_EQ(tool->output(),
              "daemon      running\nusb         disconnected\nspeaker     unknown\n"
              "microphone  unknown\n");
}

TEST_F(ToolTest, TellsTheStatusWithoutADaemon) {
    EXPECT_EQ(run({"status"}), 1);
    EXPECT_EQ(
        tool->output(),
        "daemon      absent\nusb         unknown\nspeaker     unknown\nmicrophone  unknown\n");
}

TEST_F(ToolTest, TellsTheStatusOfADaemonThatDoesNotAnswer) {
    daemon.bindSocket();
    EXPECT_EQ(run({"status", "--json", "--wait", "0.1"}), 1);
    EXPECT_EQ(
        tool->output(),
        R"({"daemon":"silent","other_app":false,"usb_state":null,"speaker_state":null,"mic_state":null})"
        "\n");
}

TEST_F(ToolTest, TellsTheStatusBesideAnotherApp) {
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    EXPECT_EQ(run({"status", "--json"}), 1);
    EXPECT_THAT(tool->output(), HasSubstr(R"({"daemon":"absent","other_app":true,)"));
    daemon.bindSocket();
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_EQ(tool->output(),
              "daemon      running, another app receives the states\nusb         unknown\n"
              "speaker     unknown\nmicrophone  unknown\n");
}

// ---- Sound -------------------------------------------------------------------------------------

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
    // Two and a half blocks: the half one waits for more.
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
    // All of it is 20 dB below full scale.
    const StreamingDaemon streaming(folder, StreamingOptions::playing(3277, 3277));
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
    StreamingOptions options = StreamingOptions::playing(0, 0);
    options.echoes = true;
    const StreamingDaemon streaming(folder, options);
    EXPECT_EQ(run({"latency", "--count", "3"}), 0);
    EXPECT_EQ(tool->errors(), "");
    const std::string number = " *[0-9]+\\.[0-9]+ ms";
    EXPECT_THAT(tool->output(),
                MatchesRegex(number + "\n" + number + "\n" + number + "\nmedian" + number +
                             ", lowest" + number + ", highest" + number + "\n"));
}

TEST_F(ToolTest, SaysWhyItCannotMeasure) {
    StreamingOptions options = StreamingOptions::playing(0, 0);
    {
        const StreamingDaemon deaf(folder, options);
        EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
        EXPECT_EQ(
            tool->errors(),
            "uafd-companion: latency: no burst came back: does the host play what it records?\n");
    }
    options.records = false;
    {
        const StreamingDaemon mute(folder, options);
        EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
        EXPECT_EQ(tool->errors(),
                  "uafd-companion: latency: the daemon accepts no sound: does the host record?\n");
    }
    const StreamingDaemon loud(folder, StreamingOptions::playing(2000, 2000));
    EXPECT_EQ(run({"latency", "--wait", "0.3"}), 1);
    EXPECT_EQ(tool->errors(),
              "uafd-companion: latency: the host plays other sound, which hides the bursts\n");
}

}  // namespace
}  // namespace uafd
