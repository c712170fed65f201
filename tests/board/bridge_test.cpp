// SPDX-License-Identifier: Apache-2.0
// The companion tool's bridge between the daemon and a sound card with a clock of its own: the
// kernel's loopback card, whose one end the bridge has and whose other end is the ear and the mouth
// of the board's user.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <sched.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/host.h"
#include "board/kit/process_view.h"
#include "board/kit/service.h"
#include "tests/board/app_recording.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using namespace board;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

constexpr char kCard[] = "hw:5,0,0";       // the bridge's
constexpr char kUsersCard[] = "hw:5,1,0";  // the user's
constexpr char kHeardFile[] = "/out/heard.raw";
constexpr char kSaidFile[] = "/out/said.raw";
constexpr int kToneHz = 500;
constexpr double kToneBend = 8000 * (2 * M_PI * kToneHz / kRate) * (2 * M_PI * kToneHz / kRate);

int runToEnd(const Words& words) {
    return ChildProcess(words).wait();
}

// The last of the bridge's objects of JSON: a number of one direction.
double lastOf(const std::string& json, const std::string& direction, const std::string& key) {
    const size_t object = json.rfind("{\"seconds\"");
    const size_t side = object == std::string::npos ? object : json.find("\"" + direction, object);
    const size_t at = side == std::string::npos ? side : json.find("\"" + key + "\":", side);
    EXPECT_NE(at, std::string::npos) << json;
    return at == std::string::npos ? NAN : atof(json.c_str() + at + key.size() + 3);
}

class Bridge : public BoardCase {
  protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(runToEnd({"/bin/busybox", "modprobe", "snd-aloop", "index=5"}), 0);
    }
    ~Bridge() override { setClocks(0, 0, 0); }

    // How much faster than the board's clock each one is, in ppm. Before the streams begin.
    void setClocks(int hostPpm, int speakerPpm, int microphonePpm) {
        host.command("ppb " + std::to_string(hostPpm * 1000));
        setShift(1, speakerPpm);
        setShift(0, microphonePpm);
    }
    // The card's control is the period's length; each direction has that of its capturing device.
    static void setShift(int device, int ppm) {
        EXPECT_EQ(
            runToEnd({"/usr/bin/amixer", "-q", "-c", "5", "cset",
                      "iface=PCM,name='PCM Rate Shift 100000',device=" + std::to_string(device),
                      std::to_string(100000 - ppm / 10)}),
            0);
    }
    // At the priority that its service has.
    void start(const Words& options = {}, const std::string& speaker = kCard,
               const std::string& microphone = kCard) {
        Words words = {"/bin/uafd-companion", "bridge",  "--json", "--speaker", speaker,
                       "--microphone",        microphone};
        words.insert(words.end(), options.begin(), options.end());
        bridge = std::make_unique<ChildProcess>(words, [] {
            const sched_param priority{20};
            sched_setscheduler(0, SCHED_FIFO, &priority);
        });
    }
    void startWithDaemon(const Words& options = {}) {
        micService = std::make_unique<MicService>();
        start(options);
        startDaemon();
    }
    static std::unique_ptr<ChildProcess> listen(int seconds) {
        return std::make_unique<ChildProcess>(
            Words{"/usr/bin/arecord", "-q", "-D", kUsersCard, "-t", "raw", "-f", "S16_LE", "-c",
                  "2", "-r", "48000", "-d", std::to_string(seconds), kHeardFile});
    }
    // What the user will say: a tone.
    static void prepareSpeech(int seconds) {
        writeRaw(kSaidFile, render(sine(kToneHz), 0, int64_t{kRate} * seconds));
    }
    static std::unique_ptr<ChildProcess> speak() {
        return std::make_unique<ChildProcess>(Words{"/usr/bin/aplay", "-q", "-D", kUsersCard, "-t",
                                                    "raw", "-f", "S16_LE", "-c", "2", "-r", "48000",
                                                    kSaidFile});
    }
    // The tone, from `from` seconds on, without a click.
    static void expectTone(const char* who, const Samples& sound, double from) {
        const auto begin = static_cast<size_t>(from * kRate);
        ASSERT_GT(sound.size(), begin + kRate);
        const int bend = largestSecondDifference(sound, begin, sound.size());
        printf("%s: %.1f s, largest second difference %d, the tone's is %.0f\n", who,
               static_cast<double>(sound.size()) / kRate, bend, kToneBend);
        EXPECT_LT(bend, 1.3 * kToneBend) << who;
        EXPECT_GT(bend, 0.9 * kToneBend) << who;
        // No silence either, which may begin where the tone is 0.
        int64_t zeros = 0;
        for (size_t i = begin; i < sound.size(); ++i) {
            zeros = std::abs(sound[i]) < 400 ? zeros + 1 : 0;
            ASSERT_LT(zeros, 10) << who << " at " << static_cast<double>(i) / kRate << " s";
        }
    }
    static int peakOf(const Samples& sound) {
        int peak = 0;
        for (const int16_t sample : sound) {
            peak = std::max(peak, std::abs(sample));
        }
        return peak;
    }
    // Whether both tones arrive within some seconds.
    bool flows() {
        host.takeRecording();
        const bool isHeardByHost = waitFor([&] {
            sleepFor(100 * kMs);
            return peakOf(host.takeRecording()) > 7000;
        });
        const auto ear = listen(1);
        EXPECT_EQ(ear->wait(), 0) << ear->errors();
        return isHeardByHost && peakOf(heardIn(kHeardFile)) > 7000;
    }
    void endBridge() {
        bridge->send(SIGINT);
        EXPECT_EQ(bridge->wait(), 0) << bridge->errors();
        app = std::make_unique<App>();
        bothOff();
    }
    void printLast() const {
        const std::string json = bridge->output();
        const size_t at = json.rfind("{\"seconds\"");
        printf("%s", at == std::string::npos ? "" : json.c_str() + at);
    }

    std::unique_ptr<ChildProcess> bridge;
};

// All clocks differ, and both cards' buffers would run dry within the time if the bridge did not
// follow. By hand for longer and with other clocks: BRIDGE_SECONDS, and BRIDGE_CLOCKS with the ppm
// of host, speaker and microphone.
TEST_F(Bridge, MakesTheBoardAHeadsetWhateverTheClocks) {
    const char* const longRun = getenv("BRIDGE_SECONDS");
    const int seconds = longRun != nullptr ? atoi(longRun) : 20;
    const char* const clocks = getenv("BRIDGE_CLOCKS");
    int hostPpm = -500;
    int speakerPpm = 500;
    int microphonePpm = -1000;
    if (clocks != nullptr) {
        sscanf(clocks, "%d %d %d", &hostPpm, &speakerPpm, &microphonePpm);
    }
    prepareSpeech(seconds + 1);
    setClocks(hostPpm, speakerPpm, microphonePpm);
    const HostPlayer player(sine(kToneHz));
    startWithDaemon();
    const auto ear = listen(seconds);
    const auto mouth = speak();
    bothOn();
    sleepFor(2 * kSecond);
    host.takeRecording();
    const pid_t pid = atoi(outputOf("/bin/busybox pidof uafd-companion").c_str());
    const Ns cpuBefore = cpuOf(pid);
    Samples recorded;
    for (int i = 4; i < seconds; i += 2) {
        sleepFor(2 * kSecond);
        const Samples more = host.takeRecording();
        recorded.insert(recorded.end(), more.begin(), more.end());
    }
    // On this board a nanosecond of processor time is an instruction.
    const int64_t instructions = (cpuOf(pid) - cpuBefore) / (seconds - 4);
    printf("the bridge takes %.1f Mi/s\n", static_cast<double>(instructions) / 1e6);
    EXPECT_LT(instructions, 200000000);
    printLast();
    const std::string told = bridge->output();
    EXPECT_NEAR(lastOf(told, "speaker", "ppm"), speakerPpm - hostPpm, 150);
    EXPECT_NEAR(lastOf(told, "microphone", "ppm"), microphonePpm, 150);
    for (const char* direction : {"speaker", "microphone"}) {
        EXPECT_EQ(lastOf(told, direction, "xruns"), 0) << direction;
        EXPECT_EQ(lastOf(told, direction, "lost_frames"), 0) << direction;
        EXPECT_NEAR(lastOf(told, direction, "latency_ms"), 20, 6) << direction;
    }
    EXPECT_EQ(ear->wait(), 0) << ear->errors();
    expectTone("the user hears", heardIn(kHeardFile), 2);
    expectTone("the host hears", recorded, 0);
    endBridge();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Bridge, SaysWhyItCannotBegin) {
    start({}, "hw:9", "none");
    EXPECT_EQ(bridge->wait(), 1);
    EXPECT_EQ(bridge->errors(), "uafd-companion: speaker hw:9: there is no such card\n");
    start({}, "plug:'nothing", "none");
    EXPECT_EQ(bridge->wait(), 1);
    EXPECT_THAT(bridge->errors(), HasSubstr("speaker plug:'nothing: Invalid argument: "));
    start({}, "none", kUsersCard);
    ASSERT_TRUE(waitFor([&] { return bridge->errors() != ""; }));
    EXPECT_EQ(bridge->errors(),
              "uafd-companion: microphone hw:5,1,0: 48000 Hz, 2 channels, S16_LE\n");
    ChildProcess second(
        {"/bin/uafd-companion", "bridge", "--speaker", "none", "--microphone", kUsersCard});
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(second.errors(), "uafd-companion: microphone hw:5,1,0: Device or resource busy\n");
    ChildProcess third(
        {"/bin/uafd-companion", "bridge", "--speaker", "none", "--microphone", "hw:5,1,1"});
    EXPECT_EQ(third.wait(), 1);
    EXPECT_THAT(third.errors(), HasSubstr("opening: another app has the microphone\n"));
}

TEST_F(Bridge, AppliesVolumeAndMuteInBothDirections) {
    prepareSpeech(4);
    const HostPlayer player(sine(kToneHz));
    startWithDaemon({"--apply-volume"});
    const auto ear = listen(3);
    const auto mouth = speak();
    bothOn();
    sleepFor(kSecond);
    host.command("volume speaker -5120");
    host.command("volume mic -5120");
    sleepFor(kSecond);
    host.takeRecording();
    sleepFor(kSecond / 5);
    EXPECT_NEAR(peakOf(host.takeRecording()), 800, 40);
    host.command("mute speaker 1");
    host.command("mute mic 1");
    EXPECT_EQ(ear->wait(), 0);
    host.takeRecording();
    sleepFor(kSecond / 5);
    EXPECT_EQ(peakOf(host.takeRecording()), 0);
    const Samples sound = heardIn(kHeardFile);
    const auto second = [&](double from) {
        const auto at = sound.begin() + static_cast<std::ptrdiff_t>(from * kRate);
        return peakOf(Samples(at, at + kRate / 5));
    };
    EXPECT_NEAR(second(0.7), 8000, 100);
    EXPECT_NEAR(second(1.7), 800, 40);
    EXPECT_EQ(second(2.7), 0);
    EXPECT_LT(largestSecondDifference(sound, kRate / 2, sound.size()), 1.3 * kToneBend);
}

// The daemon, the card, and the bridge's own processor time are gone for a while.
TEST_F(Bridge, OutlivesDaemonAndCardAndALongWait) {
    prepareSpeech(20);
    const HostPlayer player(sine(kToneHz));
    startWithDaemon();
    auto mouth = speak();
    bothOn();
    EXPECT_TRUE(flows());
    daemon.stop();
    sleepFor(kSecond / 2);
    daemon.start();
    EXPECT_TRUE(flows()) << "after a restart of the daemon";

    bridge->send(SIGSTOP);
    sleepFor(kSecond / 5);
    bridge->send(SIGCONT);
    EXPECT_TRUE(flows()) << "after a long wait";
    sleepFor(kSecond);
    EXPECT_GT(lastOf(bridge->output(), "speaker", "xruns"), 0);
    EXPECT_GT(lastOf(bridge->output(), "microphone", "xruns"), 0);

    // The speaker's card goes while it stands still, when no write can fail.
    host.command("speaker off");
    sleepFor(kSecond / 2);
    mouth->send(SIGKILL);
    mouth->wait();
    constexpr char kDriver[] = "/sys/bus/platform/drivers/snd_aloop/";
    put(std::string(kDriver) + "unbind", "snd_aloop.0");
    for (const char* direction : {"speaker", "microphone"}) {
        const std::string message =
            std::string(direction) + " hw:5,0,0: there is no such card; waiting for it\n";
        EXPECT_TRUE(waitFor([&] { return bridge->errors().find(message) != std::string::npos; }))
            << bridge->errors();
    }
    sleepFor(kSecond);
    put(std::string(kDriver) + "bind", "snd_aloop.0");
    host.command("speaker on");
    sleepFor(2 * kSecond);
    mouth = speak();
    EXPECT_TRUE(flows()) << "with a card that is back";
    bridge->send(SIGTERM);
    EXPECT_EQ(bridge->wait(), 0);
    EXPECT_THAT(bridge->output(), Not(HasSubstr("nan")));
}

}  // namespace
}  // namespace uafd
