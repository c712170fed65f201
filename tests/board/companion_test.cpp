// SPDX-License-Identifier: Apache-2.0
// The companion library with the daemon: sound and messages in both directions, whichever of the
// two starts first, and after a restart of either.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <uafd_companion.hpp>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "board/kit/host.h"
#include "tests/board/app_recording.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using Event = std::pair<uafd_event_type, int>;

constexpr int64_t kBlock = UAFD_BLOCK_FRAMES;

// An app that uses the library in a thread of its own: it sends noise, and keeps the sound and the
// events that it receives.
class LibraryApp {
  public:
    explicit LibraryApp(unsigned parts = UAFD_ALL) : parts(parts) {
        EXPECT_EQ(companion.open(parts), 0);
        thread = std::thread([this] { run(); });
    }
    ~LibraryApp() {
        stop = true;
        companion.wake();
        thread.join();
    }
    // Stops or resumes writing.
    void pauseSpeaking(bool pause) { paused = pause; }

    uafd_counts counts() const { return companion.counts(); }
    // The left channel's samples; the right channel has the same ones.
    Samples takeHeard() {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(heard, {});
    }
    std::vector<Event> takeEvents() {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(events, {});
    }
    // The last value of each event; 0 for a state that was not reported.
    std::map<uafd_event_type, int> belief() {
        const std::lock_guard<std::mutex> lock(mutex);
        return beliefs;
    }
    // When the last event came.
    Ns toldAt() const { return lastToldAt; }

    uafd::Companion companion;

  private:
    void run() {
        int64_t frame = 0;
        while (!stop) {
            const int ready = companion.wait();
            if (ready > 0 && (ready & UAFD_READY_BLOCK) != 0 && !paused) {
                int16_t said[2 * UAFD_BLOCK_FRAMES];
                for (int i = 0; i < UAFD_BLOCK_FRAMES; ++i) {
                    said[2 * i] = noise(frame + i);
                    said[2 * i + 1] = static_cast<int16_t>(~said[2 * i]);
                }
                frame += companion.write(said) == 0 ? UAFD_BLOCK_FRAMES : 0;
            }
            const std::lock_guard<std::mutex> lock(mutex);
            if ((parts & UAFD_SPEAKER) != 0) {
                hear();
            }
            takeTold();
        }
    }
    void takeTold() {
        while (const auto event = companion.nextEvent()) {
            events.emplace_back(event->type, event->value);
            beliefs[event->type] = event->value;
            lastToldAt = now();
        }
    }
    void hear() {
        int16_t samples[2 * 1024];
        const int frames = companion.read(samples, 1024);
        int unequal = 0;
        for (int i = 0; i < frames; ++i) {
            unequal += samples[2 * i] != samples[2 * i + 1] ? 1 : 0;
            heard.push_back(samples[2 * i]);
        }
        EXPECT_EQ(unequal, 0) << "frames";
    }

    const unsigned parts;
    std::mutex mutex;
    Samples heard;
    std::vector<Event> events;
    std::map<uafd_event_type, int> beliefs{
        {UAFD_USB_STATE, 0}, {UAFD_SPEAKER_STATE, 0}, {UAFD_MIC_STATE, 0}, {UAFD_DAEMON_STATE, 0}};
    std::atomic<Ns> lastToldAt{0};
    std::atomic<bool> paused{false};
    std::atomic<bool> stop{false};
    std::thread thread;
};

class CompanionLibrary : public BoardCase {
  protected:
    void start() {
        micService = std::make_unique<MicService>();
        library.emplace();
        startDaemon();
    }
    bool hears(int64_t frames) {
        int64_t sound = 0;
        library->takeHeard();
        return waitFor([&] {
            for (const int16_t sample : library->takeHeard()) {
                sound += sample != 0 ? 1 : 0;
            }
            return sound >= frames;
        });
    }
    // The host hears what the app has said within the last second.
    bool isHeard() {
        host.takeRecording();
        return waitFor([&] {
            sleepFor(200 * kMs);
            const auto said = static_cast<int64_t>(library->counts().blocks_taken) * kBlock;
            const Samples recent = render(noise, std::max<int64_t>(said - kRate, 0), kRate);
            const Samples recorded = host.takeRecording();
            int stretches = 0;
            for (size_t at = 0; at + kBlock < recorded.size(); at += kBlock) {
                stretches += find(recorded, at, recent) >= 0 ? 1 : 0;
            }
            return stretches >= 5;
        });
    }
    // Another app shows that the daemon is intact.
    void expectWhole() {
        bothOff();
        EXPECT_TRUE(hasThreads(kIdleThreads));
        library.reset();
        app = std::make_unique<App>();
        EXPECT_EQ(findDamage(), "");
    }
    std::vector<Event> events(size_t count) {
        std::vector<Event> all;
        waitFor([&] {
            const std::vector<Event> more = library->takeEvents();
            all.insert(all.end(), more.begin(), more.end());
            return all.size() >= count;
        });
        return all;
    }

    bool believes(int usb, int speaker, int mic) {
        return waitFor([&] {
            auto belief = library->belief();
            return belief[UAFD_DAEMON_STATE] == 1 && belief[UAFD_USB_STATE] == usb &&
                   belief[UAFD_SPEAKER_STATE] == speaker && belief[UAFD_MIC_STATE] == mic;
        });
    }

    std::optional<LibraryApp> library;
};

TEST_F(CompanionLibrary, CarriesSoundBothWays) {
    start();
    const HostPlayer player(ramp);
    ASSERT_TRUE(player.fill());
    const uafd_counts before = library->counts();
    switchBoth(true);
    EXPECT_TRUE(isHeard());
    sleepFor(kSecond);
    const uafd_counts after = library->counts();
    const Samples heard = library->takeHeard();
    ASSERT_GT(heard.size(), static_cast<size_t>(kRate));
    EXPECT_EQ(breaksIn(heard), 0);
    EXPECT_GE(after.frames_read - before.frames_read, heard.size());
    EXPECT_GT(after.blocks_taken, before.blocks_taken + 100);
}

TEST_F(CompanionLibrary, TellsWhatTheHostDoes) {
    start();
    sleepFor(kSecond);
    library->takeEvents();  // discards the events of the start
    ASSERT_EQ(library->companion.sync(), 0);
    EXPECT_THAT(events(3), ElementsAre(Event{UAFD_USB_STATE, 1}, Event{UAFD_SPEAKER_STATE, 0},
                                       Event{UAFD_MIC_STATE, 0}));
    for (const char* command :
         {"volume speaker -1280", "mute speaker 1", "volume mic 512", "mute mic 1", "mute mic 0"}) {
        host.command(command);
    }
    EXPECT_THAT(events(5), ElementsAre(Event{UAFD_SPEAKER_VOLUME, -1280},
                                       Event{UAFD_SPEAKER_MUTE, 1}, Event{UAFD_MIC_VOLUME, 512},
                                       Event{UAFD_MIC_MUTE, 1}, Event{UAFD_MIC_MUTE, 0}));
    host.command("speaker on");
    EXPECT_THAT(events(1), ElementsAre(Event{UAFD_SPEAKER_STATE, 1}));
    host.command("mic on");
    EXPECT_THAT(events(1), ElementsAre(Event{UAFD_MIC_STATE, 1}));
    host.command("mic off");
    EXPECT_THAT(events(1), ElementsAre(Event{UAFD_MIC_STATE, 0}));
    host.command("unplug");
    EXPECT_THAT(events(2), testing::UnorderedElementsAre(Event{UAFD_USB_STATE, 0},
                                                         Event{UAFD_SPEAKER_STATE, 0}));
    EXPECT_EQ(library->counts().datagrams_bad, 0U);
}

TEST_F(CompanionLibrary, SetsVolumeAndMute) {
    start();
    const Ns since = now();
    EXPECT_EQ(library->companion.setSpeakerVolume(-2560), 0);
    EXPECT_EQ(library->companion.setSpeakerMute(true), 0);
    EXPECT_EQ(library->companion.setSpeakerMute(false), 0);
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_MUTE 0 0", since));
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 1 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_VOLUME -2560 0", since), 1);
}

TEST_F(CompanionLibrary, LetsADaemonThatWaitsStart) {
    daemon.start();
    ASSERT_TRUE(daemon.waitForLog("/tmp/usbAudioFifoRx is not available yet*"));
    library.emplace();
    EXPECT_TRUE(daemon.waitForLog("Fifos observed*"));
    EXPECT_TRUE(hasThreads(kIdleThreads));
}

TEST_F(CompanionLibrary, OutlivesTheDaemon) {
    start();
    const HostPlayer player(noise);
    switchBoth(true);
    ASSERT_TRUE(hears(kRate / 2));
    library->takeEvents();
    daemon.stop();
    EXPECT_EQ(library->companion.sync(), -ECONNREFUSED);
    EXPECT_THAT(events(4), ElementsAre(Event{UAFD_DAEMON_STATE, 0}, Event{UAFD_USB_STATE, 0},
                                       Event{UAFD_SPEAKER_STATE, 0}, Event{UAFD_MIC_STATE, 0}));
    EXPECT_TRUE(waitFor([&] { return library->counts().blocks_unread > 10; }));
    daemon.start();  // the host's streams are on
    ASSERT_TRUE(hasThreads(kStreamingThreads));
    EXPECT_TRUE(hears(kRate / 2));
    EXPECT_TRUE(isHeard());
    EXPECT_TRUE(believes(1, 1, 1));
}

// Without sound, no block's time wakes the library before its own check of the daemon.
TEST_F(CompanionLibrary, TellsAnAppThatOnlyWaitsOfTheDaemonsEnd) {
    const LibraryApp sound(UAFD_SOUND);
    library.emplace(UAFD_EVENTS);
    startDaemon();
    ASSERT_TRUE(believes(1, 0, 0));
    const Ns ended = now();
    daemon.stop();
    EXPECT_TRUE(waitFor([&] { return library->belief()[UAFD_DAEMON_STATE] == 0; }));
    const Ns told = library->toldAt();
    EXPECT_LT(told - ended, 210 * kMs);
    const Ns started = now();
    daemon.start();
    EXPECT_TRUE(believes(1, 0, 0));
    printf("the daemon's end is reported after %ld ms, its states %ld ms after its start\n",
           (told - ended) / kMs, (library->toldAt() - started) / kMs);
}

// Each replacement takes less time than passes between two checks of the library.
TEST_F(CompanionLibrary, NoticesADaemonThatIsReplaced) {
    start();
    host.command("mic on");
    ASSERT_TRUE(believes(1, 0, 1));
    for (int i = 0; i < 5; ++i) {
        library->takeEvents();
        daemon.stop();
        daemon.start();
        EXPECT_THAT(events(3), testing::Contains(Event{UAFD_DAEMON_STATE, 0})) << i;
        EXPECT_TRUE(believes(1, 0, 1)) << i;
        sleepFor(40 * kMs);
    }
}

// The cable is pulled while no daemon runs: the next daemon reports that USB is gone, and nothing
// about streams.
TEST_F(CompanionLibrary, BelievesADaemonThatTellsOfNoUsb) {
    start();
    switchBoth(true);
    ASSERT_TRUE(believes(1, 1, 1));
    daemon.stop();
    host.command("unplug");
    daemon.start();
    ASSERT_TRUE(hasThreads(kIdleThreads));
    EXPECT_TRUE(believes(0, 0, 0));
    sleepFor(kSecond);
    EXPECT_TRUE(believes(0, 0, 0));
}

// An app that takes no events runs for a while; then one that takes them starts.
TEST_F(CompanionLibrary, LeavesNoEventsThatDelayTheNextApps) {
    library.emplace(UAFD_SOUND);
    startDaemon();
    for (int i = 0; i < 6; ++i) {
        host.command("volume speaker -256");
        sleepFor(kSecond);
    }
    library.emplace();
    const Ns opened = now();
    EXPECT_TRUE(believes(1, 0, 0));
    const Ns told = library->toldAt();
    EXPECT_LT(told - opened, 50 * kMs);
    host.command("volume speaker -512");
    const Ns changed = now();
    EXPECT_TRUE(waitFor([&] { return library->toldAt() >= changed; }, 10 * kSecond));
    EXPECT_LT(library->toldAt() - changed, 50 * kMs);
    printf("the next app's states come after %ld us, its first event after %ld us\n",
           (told - opened) / 1000, (library->toldAt() - changed) / 1000);
}

// An open app that writes nothing: the host records silence and no sound twice, and then hears the
// app as before.
TEST_F(CompanionLibrary, KeepsTheHostInSilenceWhenItSaysNothing) {
    start();
    host.command("mic on");
    EXPECT_TRUE(isHeard());
    library->pauseSpeaking(true);
    sleepFor(100 * kMs);
    host.takeRecording();
    sleepFor(kSecond);
    const Samples recorded = host.takeRecording();
    EXPECT_GT(recorded.size(), static_cast<size_t>(kRate / 2));
    EXPECT_EQ(firstSound(recorded), recorded.size());
    library->pauseSpeaking(false);
    EXPECT_TRUE(isHeard());
    expectWhole();
}

// One app takes the speaker, another the microphone.
TEST_F(CompanionLibrary, ServesTwoAppsWithAPartEach) {
    micService = std::make_unique<MicService>();
    library.emplace(UAFD_MIC | UAFD_EVENTS);
    std::optional<LibraryApp> listener(UAFD_SPEAKER);
    startDaemon();
    const HostPlayer player(noise);
    switchBoth(true);
    EXPECT_TRUE(isHeard());
    EXPECT_TRUE(believes(1, 1, 1));
    EXPECT_TRUE(waitFor([&] { return listener->counts().frames_read > kRate; }));
    listener.reset();
    EXPECT_TRUE(isHeard()) << "the microphone's app goes on when the other one ends";
}

TEST_F(CompanionLibrary, ComesBackToADaemonThatStreams) {
    start();
    const HostPlayer player(noise);
    switchBoth(true);
    ASSERT_TRUE(hears(kRate / 2));
    library.reset();
    sleepFor(100 * kMs);
    library.emplace();
    EXPECT_THAT(events(4), ElementsAre(Event{UAFD_DAEMON_STATE, 1}, Event{UAFD_USB_STATE, 1},
                                       Event{UAFD_SPEAKER_STATE, 1}, Event{UAFD_MIC_STATE, 1}));
    EXPECT_TRUE(hears(kRate / 2));
    EXPECT_TRUE(isHeard());
    expectWhole();
}

// The example starts before the daemon; each waits until the other is there.
TEST_F(CompanionLibrary, RunsTheExample) {
    const HostPlayer player(ramp);
    const pid_t example = fork();
    if (example == 0) {
        execl("/tests/record_and_play", "record_and_play", "/out/heard.raw", nullptr);
        _exit(127);
    }
    startDaemon();
    switchBoth(true);
    int status = -1;
    rusage used{};
    ASSERT_EQ(wait4(example, &status, 0, &used), example);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(used.ru_utime.tv_sec + used.ru_stime.tv_sec, 0)
        << "it used the processor for a second";
    const Samples left = heardIn("/out/heard.raw");
    ASSERT_GT(left.size(), static_cast<size_t>(4 * kRate));
    EXPECT_EQ(breaksIn(left), 0);
    // The tone's period is 109 frames; latency control bends it by a sample now and then.
    const Samples recorded = host.takeRecording();
    EXPECT_NEAR(upwardCrossings(recorded, 0, recorded.size()), 4.5 * 440, 0.5 * 440);
}

}  // namespace
}  // namespace uafd
