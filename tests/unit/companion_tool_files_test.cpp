// SPDX-License-Identifier: Apache-2.0
// What the companion tool records and plays: files and pipes, WAV and raw.
#include <cmath>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <uafd_companion.hpp>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "tests/unit/companion_tool.h"

namespace uafd {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string bytesOf(const Samples& samples) {
    return {reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof samples[0]};
}

// ---- Recording ---------------------------------------------------------------------------------

class Recording : public ToolTest {
  protected:
    // Returns once the daemon's ends are open.
    void startRecording(std::vector<std::string> words) {
        words.insert(words.begin(), "record");
        start(words);
        ASSERT_TRUE(waitForFile("FifoRx") && waitForFile("FifoTx"));
        ASSERT_TRUE(daemon.openFifos());
    }
    void waitUntilAllIsRead() {
        ASSERT_TRUE(eventually([&] {
            int unread = 0;
            return ioctl(daemon.speakerFd(), FIONREAD, &unread) == 0 && unread == 0;
        }));
    }
    Samples recorded() {
        SF_INFO info{};
        return readWav(file("heard.wav"), &info);
    }
};

TEST_F(Recording, IsAWavFile) {
    startRecording({file("heard.wav")});
    daemon.play(ramp(600));
    daemon.play(ramp(600));
    waitUntilAllIsRead();
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_EQ(tool->errors(), "0.013 s recorded\n");
    SF_INFO info{};
    Samples expected = ramp(600);
    expected.insert(expected.end(), expected.begin(), expected.end());
    EXPECT_EQ(readWav(file("heard.wav"), &info), expected);
    EXPECT_EQ(info.samplerate, 48000);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(contentsOf(file("heard.wav")).size(), 44U + 2400);
}

TEST_F(Recording, IsWholeAfterASignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        startRecording({file("heard.wav")});
        daemon.play(ramp(480));
        waitUntilAllIsRead();
        tool->send(signal);
        EXPECT_EQ(tool->wait(), 0) << signal;
        EXPECT_EQ(recorded(), ramp(480)) << signal;
        daemon.end();
    }
}

// This is how nohup starts a program.
TEST_F(Recording, GoesOnAfterASignalThatItIsToIgnore) {
    start({"record", file("heard.wav")}, [] { signal(SIGHUP, SIG_IGN); });
    ASSERT_TRUE(waitForFile("FifoRx") && waitForFile("FifoTx"));
    ASSERT_TRUE(daemon.openFifos());
    tool->send(SIGHUP);
    daemon.play(ramp(480));
    EXPECT_TRUE(eventually([&] { return recorded() == ramp(480); }));
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 0);
}

TEST_F(Recording, IsWholeWhileItGoesOnAndWhenItIsKilled) {
    startRecording({file("heard.wav")});
    daemon.play(ramp(480));
    EXPECT_TRUE(eventually([&] { return recorded() == ramp(480); }));
    tool->send(SIGKILL);
    EXPECT_EQ(tool->wait(), 128 + SIGKILL);
    EXPECT_EQ(recorded(), ramp(480));
}

TEST_F(Recording, EndsInTimeWithASilentHost) {
    startRecording({file("heard.wav"), "--seconds", "0.2"});
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_EQ(tool->errors(), "0.000 s recorded\n");
    SF_INFO info{};
    EXPECT_EQ(readWav(file("heard.wav"), &info), Samples());
    EXPECT_EQ(info.samplerate, 48000);
}

TEST_F(Recording, LeavesTheFileOfAnotherAppsTimeAlone) {
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    const std::string path = folder.write("heard.wav", "of yesterday");
    EXPECT_EQ(run({"record", path}), 1);
    EXPECT_EQ(contentsOf(path), "of yesterday");
}

TEST_F(Recording, ReplacesWhatWasInTheFile) {
    folder.write("heard.wav", std::string(5000, 'x'));
    startRecording({file("heard.wav")});
    daemon.play(ramp(480));
    waitUntilAllIsRead();
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_EQ(contentsOf(file("heard.wav")).size(), 44U + 960);
}

TEST_F(Recording, SaysWhichFileItCannotWrite) {
    EXPECT_EQ(run({"record", "/nonexistent/heard.wav"}), 1);
    EXPECT_EQ(tool->errors(),
              "uafd-companion: /nonexistent/heard.wav: No such file or directory\n");
}

TEST_F(Recording, EndsWhenTheFileCannotGrow) {
    startRecording({"/dev/full", "--raw"});
    daemon.play(ramp(480));
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_THAT(tool->errors(), StartsWith("uafd-companion: /dev/full: No space left on device\n"));
}

TEST_F(Recording, OfAPipeHasAHeaderWithoutALength) {
    startRecording({"-"});
    daemon.play(ramp(480));
    EXPECT_TRUE(eventually([&] { return tool->output().size() == 44 + 960; }));
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 0);
    const std::string written = tool->output();
    EXPECT_EQ(written.substr(4, 4), "\xff\xff\xff\xff");
    EXPECT_EQ(written.substr(40, 4), "\xff\xff\xff\xff");
    folder.write("heard.wav", written);
    EXPECT_EQ(recorded(), ramp(480));
}

TEST_F(Recording, WithoutAHeaderIsWhatTheHostPlays) {
    startRecording({"--raw", "-"});
    daemon.play(ramp(480));
    EXPECT_TRUE(eventually([&] { return tool->output() == bytesOf(ramp(480)); }));
}

// ---- Playing -----------------------------------------------------------------------------------

// A pipe to the tool's standard input.
class Feed {
  public:
    Feed() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ~Feed() {
        end();
        close(ends[0]);
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    // Called in the tool's process before the tool starts.
    void connect() const { dup2(ends[0], STDIN_FILENO); }
    void write(const std::string& bytes) const {
        ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void end() {
        if (ends[1] >= 0) {
            close(std::exchange(ends[1], -1));
        }
    }

  private:
    int ends[2] = {-1, -1};
};

class Playing : public ToolTest {
  protected:
    void startPlaying(std::vector<std::string> words, const Feed* feed = nullptr) {
        words.insert(words.begin(), "play");
        start(words, [feed] {
            if (feed != nullptr) {
                feed->connect();
            }
        });
    }
    void listen() {
        ASSERT_TRUE(waitForFile("FifoRx") && waitForFile("FifoTx"));
        ASSERT_TRUE(daemon.openFifos());
    }
    Samples heardToTheEnd() {
        return recordUntil([](const Samples&) { return false; });
    }
    static Samples filled(Samples samples, size_t size) {
        samples.resize(size);
        return samples;
    }
};

struct Format {
    const char* name;
    int format;
    int channels;
};

class Played : public Playing, public testing::WithParamInterface<Format> {};

// Every sample of the left channel is heard, from the first one on, and silence up to the end of
// the block.
TEST_P(Played, FileIsHeardWhole) {
    Samples samples;
    for (const int16_t sample : ramp(1000)) {
        samples.push_back(sample);
        samples.insert(samples.end(), static_cast<size_t>(GetParam().channels - 1), -1);
    }
    writeWav(file("said.wav"), samples, GetParam().channels, 48000, GetParam().format);
    startPlaying({file("said.wav")});
    listen();
    EXPECT_EQ(heardToTheEnd(), filled(ramp(1000), 1440));
    EXPECT_EQ(tool->wait(), 0) << tool->errors();
}

INSTANTIATE_TEST_SUITE_P(
    Of, Played,
    testing::Values(Format{"OneChannel", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1},
                    Format{"TwoChannels", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2},
                    Format{"SixChannels", SF_FORMAT_WAVEX | SF_FORMAT_PCM_16, 6},
                    Format{"ThreeBytes", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2},
                    Format{"FourBytes", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 1},
                    Format{"FloatingPoint", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Playing, OfWholeBlocksEndsWithTheLast) {
    writeWav(file("said.wav"), ramp(960), 1, 48000);
    startPlaying({file("said.wav")});
    listen();
    EXPECT_EQ(heardToTheEnd(), ramp(960));
}

TEST_F(Playing, OfAPipeTakesWhatComes) {
    writeWav(file("said.wav"), ramp(960), 1, 48000);
    std::string wav = contentsOf(file("said.wav"));
    memset(&wav[40], 0xff, 4);  // the length is unknown
    Feed feed;
    feed.write(wav.substr(0, 44 + 1000));
    startPlaying({"-"}, &feed);
    listen();
    const auto until = [](int16_t last) {
        return [last](const Samples& left) { return !left.empty() && left.back() == last; };
    };
    EXPECT_EQ(recordUntil(until(480)), ramp(480));
    EXPECT_EQ(daemon.record(), Samples(960)) << "of what is less than a block";
    feed.write(wav.substr(44 + 1000));
    feed.end();
    Samples rest = recordUntil(until(960));
    rest.erase(std::remove(rest.begin(), rest.end(), 0), rest.end());
    EXPECT_EQ(rest.size(), 480U);
    EXPECT_EQ(rest.front(), 481);
    EXPECT_EQ(heardToTheEnd(), Samples());
    EXPECT_EQ(tool->wait(), 0);
}

TEST_F(Playing, WithoutAHeaderIsStereo) {
    Samples stereo;
    for (const int16_t sample : ramp(480)) {
        stereo.insert(stereo.end(), {sample, -1});
    }
    Feed feed;
    feed.write(bytesOf(stereo));
    feed.end();
    startPlaying({"--raw", "-"}, &feed);
    listen();
    EXPECT_EQ(heardToTheEnd(), ramp(480));
    EXPECT_EQ(tool->wait(), 0);
}

TEST_F(Playing, SaysWhyItCannotPlayAFile) {
    const auto reasonFor = [this](const std::string& name) {
        EXPECT_EQ(run({"play", file(name)}), 1);
        std::string reason = tool->errors();
        EXPECT_THAT(reason, StartsWith("uafd-companion: " + file(name) + ": "));
        return reason.substr(reason.rfind(": ") + 2);
    };
    EXPECT_EQ(reasonFor("none.wav"), "No such file or directory\n");
    folder.write("song.wav", "la la la");
    EXPECT_EQ(reasonFor("song.wav"), "it is not a WAV file\n");
    writeWav(file("slow.wav"), ramp(100), 1, 44100);
    EXPECT_EQ(reasonFor("slow.wav"), "its rate is 44100 Hz, not 48000 Hz\n");
    writeWav(file("rough.wav"), ramp(100), 1, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_U8);
    EXPECT_EQ(reasonFor("rough.wav"),
              "its samples are neither of 16, 24 or 32 bits nor floating point\n");
    folder.write("cut.wav", contentsOf(file("slow.wav")).substr(0, 30));
    EXPECT_EQ(reasonFor("cut.wav"), "it ends before its sound begins\n");
}

TEST_F(Playing, OfAFileThatCannotBeReadFails) {
    EXPECT_EQ(run({"play", "--raw", folder.path()}), 1);
    EXPECT_EQ(tool->errors(), "uafd-companion: " + folder.path() + ": Is a directory\n");
}

TEST_F(Playing, OfAToneIsASine) {
    startPlaying({"--tone=480", "--level=-6"});
    listen();
    const Samples heard = recordUntil([](const Samples& left) { return left.size() >= 4800; });
    for (size_t i = 0; i < heard.size(); ++i) {
        const double turns = static_cast<double>(i % 100) / 100;
        ASSERT_NEAR(heard[i], 32767 * std::pow(10, -0.3) * std::sin(2 * M_PI * turns), 1);
    }
}

TEST_F(Playing, EndsInTimeWithAHostThatDoesNotRecord) {
    EXPECT_EQ(run({"play", "--seconds", "0.2"}), 0);
    writeWav(file("said.wav"), ramp(960), 1, 48000);
    EXPECT_EQ(run({"play", file("said.wav"), "--seconds", "0.2"}), 0);
}

}  // namespace
}  // namespace uafd
