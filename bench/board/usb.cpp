// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include "bench/board/sections.h"
#include "bench/board/subject.h"
#include "bench/board/table.h"
#include "bench/board/usb_sound.h"
#include "board/kit/app.h"
#include "board/kit/files.h"
#include "board/kit/process_view.h"
#include "board/kit/statistics.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"

namespace bench {
namespace {

using board::kMs;
using board::kSecond;
using board::Ns;

constexpr Ns kSettling = 5 * kSecond;
constexpr int64_t kDriftPpb = 1000000;     // more than crystals have: 60 ms in a minute
constexpr Ns kUndisturbed = 10 * kSecond;  // is enough where nothing has a phase
constexpr double kLeastSound = 0.01;       // of what should come through

// What the processor has done so far; interrupts count as a cost of what they interrupt.
struct Work {
    Ns all = 0;
    Ns programs = 0;
    Ns ends = 0;  // this process: the host's programs and the app
};

// How long the processor had nothing to do, to the nanosecond.
Ns idleTime() {
    const std::string timers = board::contents("/proc/timer_list");
    const std::string key = ".idle_sleeptime : ";
    const size_t at = timers.find(key);
    if (at == std::string::npos) {
        throw std::runtime_error("/proc/timer_list does not tell of idle time");
    }
    return std::stoll(timers.substr(at + key.size()));
}

// A gadget that was made on a wire as after loading, enumerated by the host.
class Connection {
  public:
    Connection(const UsbSubject& subject, int64_t hostPpb)
        : gadget(subject.function, subject.attributes) {
        wire.restore();
        wire.setPpb(hostPpb);
        gadget.bind();
        if (!board::UsbHost::waitForCard()) {
            throw std::runtime_error(subject.name + ": the host has no card");
        }
        for (const char* path :
             {board::kFifoRx, board::kFifoTx, board::kSocketRx, board::kSocketTx}) {
            unlink(path);
        }
    }

  private:
    board::Wire wire;
    board::KernelGadget gadget;
};

// The app at the FIFOs, or at the loopback card.
class AppEnd {
  public:
    AppEnd(bool usesLoopback, bool speaker, bool mic) {
        if (usesLoopback) {
            if (mic) {
                player = std::make_unique<TimedPlayer>(kAppSpeaks, End::kApp, 1);
            }
            if (speaker) {
                recorder = std::make_unique<TimedRecorder>(kAppHears, End::kApp, 1);
            }
            return;
        }
        board::AppOptions options;
        options.equalChannels = true;  // some mix them
        options.speaks = mic;
        app = std::make_unique<board::App>(options);
        app->speak(board::ramp);
    }

    void stop() {
        if (player) {
            player->stop();
        }
        if (recorder) {
            recorder->stop();
        }
    }
    std::vector<Block> played() const {
        if (player) {
            return player->blocks();
        }
        std::vector<Block> blocks;
        for (const board::SentBlock& block : app->sentBlocks()) {
            blocks.push_back({block.at, block.firstFrame});
        }
        return blocks;
    }
    HeardRamp heard() {
        if (recorder) {
            return {recorder->samples(), recorder->blocks()};
        }
        board::Heard heard = app->takeHeard();
        return {std::move(heard.left), std::move(heard.blocks)};
    }

  private:
    std::unique_ptr<board::App> app;
    std::unique_ptr<TimedPlayer> player;
    std::unique_ptr<TimedRecorder> recorder;
};

// One subject at work.
class UsbSession {
  public:
    UsbSession(const UsbSubject& subject, bool speaker, bool mic, int64_t hostPpb)
        : connection(subject, hostPpb) {
        app.emplace(subject.usesLoopback, speaker, mic);
        if (speaker) {
            hostPlayer =
                std::make_unique<TimedPlayer>(board::kHostPcm, End::kHost, subject.channels);
        }
        if (mic) {
            hostRecorder =
                std::make_unique<TimedRecorder>(board::kHostPcm, End::kHost, subject.channels);
        }
        // The daemon sees to its own scheduling.
        programs =
            std::make_unique<Processes>(subject.name, subject.commands, subject.function != "vexa");
    }

    Work work() const {
        Work work;
        for (const pid_t pid : programs->pids()) {
            work.programs += board::cpuOf(pid);
        }
        work.ends = board::cpuOf(getpid());
        work.all = board::now() - idleTime();
        return work;
    }
    // False when a program has ended by itself.
    bool run(Ns time) {
        board::sleepFor(time);
        return programs->allRun();
    }
    // Ends all streams.
    void stop() {
        programs.reset();
        app->stop();
        if (hostPlayer) {
            hostPlayer->stop();
        }
        if (hostRecorder) {
            hostRecorder->stop();
        }
    }
    Passage speakerPassage(Ns from, Ns to) {
        return passageOf(hostPlayer->blocks(), app->heard(), from, to);
    }
    Passage micPassage(Ns from, Ns to) {
        return passageOf(app->played(), {hostRecorder->samples(), hostRecorder->blocks()}, from,
                         to);
    }

  private:
    Connection connection;
    std::optional<AppEnd> app;
    std::unique_ptr<TimedPlayer> hostPlayer;
    std::unique_ptr<TimedRecorder> hostRecorder;
    std::unique_ptr<Processes> programs;
};

constexpr size_t kFigures = 10;  // columns of the table

void addLatency(const Passage& passage, std::vector<Figure>* figures) {
    const board::Spread spread = board::spreadOf(passage.latencies);
    const bool isThere = !passage.latencies.empty();
    figures->push_back(isThere ? Figure(static_cast<double>(spread.median) / kMs) : Figure());
    figures->push_back(isThere ? Figure(static_cast<double>(spread.largest) / kMs) : Figure());
}

// What streams, and for how long.
struct Task {
    bool speaker;
    bool mic;
    Ns measured;
};

void measure(const UsbSubject& subject, const std::string& name, int64_t hostPpb, const Task& task,
             Table* table) {
    const auto [speaker, mic, measured] = task;
    const bool isAlone = subject.commands.empty();
    UsbSession session(subject, speaker, mic, hostPpb);
    const bool hasSettled = session.run(kSettling);
    const Ns from = board::now();
    const Work before = session.work();
    if (!hasSettled || !session.run(isAlone ? std::min(measured, kUndisturbed) : measured)) {
        table->add(name, std::vector<Figure>(kFigures));
        fprintf(stderr, "%-40s has ended\n", name.c_str());
        return;
    }
    const Work after = session.work();
    const Ns to = board::now();
    session.stop();
    const Passage toApp = speaker ? session.speakerPassage(from, to) : Passage{};
    const Passage toHost = mic ? session.micPassage(from, to) : Passage{};
    const double seconds = static_cast<double>(to - from) / kSecond;
    const double sound = static_cast<double>(toApp.soundingFrames + toHost.soundingFrames) /
                         seconds / board::kRate / (speaker && mic ? 2 : 1);
    if (!isAlone && sound < kLeastSound) {
        throw std::runtime_error(subject.name + " does not stream");
    }
    const auto perSecond = [&](Ns instructions) {
        return static_cast<double>(instructions) / seconds / 1e6;
    };
    const Ns all = after.all - before.all;
    const Ns programs = after.programs - before.programs;
    const Ns ends = after.ends - before.ends;
    std::vector<Figure> figures{perSecond(all), perSecond(programs), perSecond(ends),
                                perSecond(all - programs - ends)};
    addLatency(toApp, &figures);
    addLatency(toHost, &figures);
    if (isAlone) {
        figures.insert(figures.end(), {Figure(), Figure()});
    } else {
        figures.emplace_back(100 * sound);
        figures.emplace_back(static_cast<double>(toApp.breaks + toHost.breaks));
    }
    table->add(name, figures);
    fprintf(stderr, "%-40s %8.3f Mi/s\n", name.c_str(), perSecond(all));
}

// How a host's clock is off.
struct HostClock {
    const char* name;  // after the subject's
    int64_t ppb;
};

// So slow that the host passes an app's block of 10 ms in that time: all phases between the two
// occur.
std::vector<HostClock> slowClock(Ns measured) {
    return {{"", -10 * kMs * kSecond / measured}};
}

void compare(const char* key, const char* title, bool speaker, bool mic, const Options& options,
             const std::vector<HostClock>& clocks) {
    // With the cable detector.
    board::loadModule("usb_board");
    loadLoopbackCard(3);
    Table table(key, title,
                {{"all_per_s", "all, Mi/s", 3},
                 {"programs_per_s", "programs, Mi/s", 3},
                 {"ends_per_s", "host and app, Mi/s", 3},
                 {"interrupts_per_s", "interrupts, Mi/s", 3},
                 {"speaker_ms", "to app, median, ms", 2},
                 {"speaker_max_ms", "max, ms", 2},
                 {"mic_ms", "to host, median, ms", 2},
                 {"mic_max_ms", "max, ms", 2},
                 {"sound_percent", "sound, %", 1},
                 {"breaks", "breaks", 0}});
    const std::vector<UsbSubject> subjects = usbSubjects(speaker, mic);
    for (size_t i = 0; i < std::min(subjects.size(), options.subjects); ++i) {
        for (const HostClock& clock : clocks) {
            // Where nobody is at the card, nobody follows a clock.
            if (clocks.size() == 1 || !subjects[i].commands.empty()) {
                measure(subjects[i], subjects[i].name + clock.name, clock.ppb,
                        {speaker, mic, options.measured}, &table);
            }
        }
    }
    table.publish();
}

}  // namespace

void measureUsbSpeaker(const Options& options) {
    compare("usb_speaker", "Speaker over USB: from the host's program to the app", true, false,
            options, slowClock(options.measured));
}

void measureUsbMicrophone(const Options& options) {
    compare("usb_microphone", "Microphone over USB: from the app to the host's program", false,
            true, options, slowClock(options.measured));
}

void measureUsbBoth(const Options& options) {
    compare("usb_both", "Both directions over USB at once", true, true, options,
            slowClock(options.measured));
}

void measureUsbDrift(const Options& options) {
    compare("usb_drift", "Both directions over USB, the host's clock 0.1 % off", true, true,
            options, {{", fast", kDriftPpb}, {", slow", -kDriftPpb}});
}

}  // namespace bench
