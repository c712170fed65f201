// SPDX-License-Identifier: Apache-2.0
// Programs that know ALSA and nothing of the daemon as its apps, started by the commands of
// docs/recipes.md: every sample in both directions, the mixer in a terminal, and programs that are
// stopped and killed.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "board/kit/host.h"
#include "board/kit/service.h"
#include "tests/board/app_recording.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAreArray;

constexpr char kFolder[] = "/out";
constexpr char kHeardFile[] = "/out/heard.wav";
constexpr char kSongFile[] = "/out/song.wav";

// ---- The document's commands --------------------------------------------------------------------

// By their names, which are those of their fences: "```sh recipe NAME".
const std::map<std::string, std::string>& recipes() {
    static const std::map<std::string, std::string> found = [] {
        const std::string kFence = "```sh recipe ";
        std::istringstream document(contents("/recipes/recipes.md"));
        std::map<std::string, std::string> read;
        for (std::string line; std::getline(document, line);) {
            if (line.rfind(kFence, 0) == 0) {
                std::string& command = read[line.substr(kFence.size())];
                while (std::getline(document, line) && line != "```") {
                    command += line + "\n";
                }
            }
        }
        return read;
    }();
    return found;
}

std::set<std::string> namesOf(const std::map<std::string, std::string>& commands) {
    std::set<std::string> names;
    for (const auto& [name, command] : commands) {
        names.insert(name);
    }
    return names;
}

std::set<std::string>& triedRecipes() {
    static std::set<std::string> names;
    return names;
}

const std::string& commandOf(const std::string& name) {
    triedRecipes().insert(name);
    return recipes().at(name);
}

// A recipe's program, in the folder of the files that it names.
class Recipe : public ChildProcess {
  public:
    explicit Recipe(const std::string& name)
        : ChildProcess({"/bin/sh", "-c", "exec " + commandOf(name)}, [] {
              if (chdir(kFolder) != 0) {
                  _exit(126);
              }
          }) {}
    void expectDone() { EXPECT_EQ(wait(), 0) << errors(); }
};

// A terminal of 100 by 30 characters in which a recipe's program runs.
class Terminal {
  public:
    explicit Terminal(const std::string& name) {
        EXPECT_EQ(tell({"new-session", "-d", "-x", "100", "-y", "30", commandOf(name)}), 0);
    }
    ~Terminal() { tell({"kill-server"}); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::string text() const {
        std::string shown;
        tell({"capture-pane", "-p"}, &shown);
        return shown;
    }
    bool shows(const std::string& what) const {
        return waitFor([&] { return text().find(what) != std::string::npos; });
    }
    void press(const std::string& key) const { EXPECT_EQ(tell({"send-keys", key}), 0); }
    bool isOpen() const { return tell({"has-session"}) == 0; }

  private:
    static int tell(const std::vector<std::string>& words, std::string* said = nullptr) {
        std::vector<std::string> command = {"/usr/bin/tmux", "-S", "/tmp/terminal"};
        command.insert(command.end(), words.begin(), words.end());
        ChildProcess tmux(command);
        const int status = tmux.wait();
        if (said != nullptr) {
            *said = tmux.output();
        }
        return status;
    }
};

// ---- The board ----------------------------------------------------------------------------------

struct Pair {
    std::string recorder;
    std::string player;
};
const Pair kAlsaUtils = {"arecord", "aplay"};
const Pair kSox = {"sox-record", "sox-play"};
const Pair kGstreamer = {"gstreamer-record", "gstreamer-play"};
const Pair kPulseAudio = {"pulseaudio-record", "pulseaudio-play"};

class Programs : public BoardCase {
  protected:
    static void SetUpTestSuite() {
        installAlsaDevice();
        setenv("HOME", "/tmp", 1);
        setenv("XDG_RUNTIME_DIR", "/run", 1);
    }
    // A recipe that no case has tried must not be in the document.
    static void TearDownTestSuite() {
        if (testing::GTEST_FLAG(filter) == "*") {
            EXPECT_THAT(triedRecipes(), ElementsAreArray(namesOf(recipes())));
        }
    }
    // At the end, where the daemon's buffer runs empty, there is a little silence.
    static Samples writeSong() {
        Samples song = render(noise, 1, kRate / 2);
        Samples file(7 * kRate / 2);
        file.insert(file.end(), song.begin(), song.end());
        file.resize(file.size() + kRate / 5);
        writeWav(kSongFile, file);
        return song;
    }
    void startSoundServer() {
        std::filesystem::remove_all("/run/pulse");  // of one that was killed
        server = std::make_unique<Recipe>("pulseaudio");
        ASSERT_TRUE(waitFor([] { return exists("/run/pulse/native"); }));
        Recipe("pulseaudio-source").expectDone();
        Recipe("pulseaudio-sink").expectDone();
    }
    // The recorder is there first, and lets the daemon start.
    void expectBothWays(const Pair& pair) {
        const HostPlayer speaker(ramp);
        const Samples song = writeSong();
        Recipe recorder(pair.recorder);
        startWithoutApp();
        bothOn();
        Recipe(pair.player).expectDone();
        sleepFor(kSecond / 10);
        expectAllOf(song, &host);
        recorder.send(SIGINT);
        recorder.wait();
        const Samples heard = heardIn(kHeardFile, kWavHeader);
        EXPECT_EQ(readWav(kHeardFile).size(), heard.size()) << "the header is not right";
        const std::vector<Stretch> sound = stretchesOf(heard);
        ASSERT_EQ(sound.size(), 1U) << recorder.errors();
        EXPECT_EQ(breaksIn(heard, sound[0].from, sound[0].end()), 0);
        EXPECT_GT(sound[0].frames, static_cast<size_t>(3 * kRate));
    }
    std::unique_ptr<Recipe> server;
};

TEST_F(Programs, AlsaUtils) {
    expectBothWays(kAlsaUtils);
}

TEST_F(Programs, Sox) {
    expectBothWays(kSox);
}

TEST_F(Programs, Gstreamer) {
    expectBothWays(kGstreamer);
}

TEST_F(Programs, PulseAudio) {
    startSoundServer();
    expectBothWays(kPulseAudio);
}

// A terminal needs what the system of a larger board has set up.
TEST_F(Programs, Alsamixer) {
    std::filesystem::create_directory("/dev/pts");
    ASSERT_EQ(mount("pts", "/dev/pts", "devpts", 0, nullptr), 0);
    setenv("LC_ALL", "C.UTF-8", 1);
    const Recipe recorder("arecord");
    startDaemon();
    Ns since = now();
    const Terminal terminal("alsamixer");
    ASSERT_TRUE(terminal.shows("Item: Speaker [dB gain: 0.00]")) << terminal.text();
    host.command("volume speaker -2560");
    EXPECT_TRUE(terminal.shows("Item: Speaker [dB gain: -10.00]")) << terminal.text();
    host.command("mute speaker 1");
    EXPECT_TRUE(terminal.shows("│MM│")) << terminal.text();
    terminal.press("m");
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_MUTE 0", since));
    terminal.press("Down");
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_VOLUME -2816", since));
    EXPECT_TRUE(terminal.shows("Item: Speaker [dB gain: -11.00]")) << terminal.text();
    put("/out/alsamixer.txt", terminal.text());
    terminal.press("F4");
    EXPECT_TRUE(terminal.shows("Item: Mic [dB gain: 0.00]")) << terminal.text();
    put("/out/alsamixer-capture.txt", terminal.text());
    terminal.press("Escape");
    EXPECT_TRUE(waitFor([&] { return !terminal.isOpen(); }));

    since = now();
    Recipe("amixer").expectDone();
    EXPECT_EQ(host.countEvents("uac SET_SPK_VOLUME -2560 0", since), 1);
}

// A program that is stopped does not read: the daemon waits for it until it is killed.
TEST_F(Programs, LeaveTheDaemonWholeWhenTheyAreStoppedAndKilled) {
    const HostPlayer speaker(ramp);
    writeSong();
    for (const Pair& pair : {kAlsaUtils, kSox, kGstreamer, kPulseAudio}) {
        std::filesystem::remove(kHeardFile);
        if (pair.recorder == kPulseAudio.recorder) {
            startSoundServer();
        }
        const Recipe recorder(pair.recorder);
        if (!daemon.isRunning()) {
            startWithoutApp();
            bothOn();
        }
        const Recipe player(pair.player);
        ASSERT_TRUE(waitFor([] { return contents(kHeardFile).size() > 60000; }))
            << pair.recorder << ": " << recorder.errors();
        for (const Recipe* process :
             {static_cast<const Recipe*>(server.get()), &recorder, &player}) {
            if (process != nullptr) {
                process->send(SIGSTOP);
            }
        }
        sleepFor(kSecond / 4);
    }
    server = nullptr;
    app = std::make_unique<App>();
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
