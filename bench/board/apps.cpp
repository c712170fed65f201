// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/board/sections.h"
#include "bench/board/subject.h"
#include "bench/board/table.h"
#include "board/kit/board.h"
#include "board/kit/host.h"
#include "board/kit/service.h"

namespace bench {
namespace {

using board::kSecond;
using board::Ns;

constexpr Ns kSettling = 5 * kSecond;
constexpr Ns kLookEvery = 5 * kSecond;  // the host keeps what it recorded for a while
constexpr double kLeastSound = 0.9;
constexpr char kHeardFile[] = "/tmp/heard.raw";

struct App {
    std::string name;
    std::string command;  // stereo frames to its standard output or from its standard input
};

constexpr char kNative[] = "-q -t raw -f S16_LE -c 2 -r 48000 ";
constexpr char kOther[] = "-q -t raw -f S16_LE -c 2 -r 44100 ";
constexpr char kSoxRaw[] = " -c 2 -r 48000 -b 16 -e signed -t raw - ";
constexpr char kGst[] = "/usr/bin/gst-launch-1.0 -q ";
constexpr char kGstRaw[] =
    "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! alsasink device=uafd ";

std::vector<App> recorders() {
    return {
        {"library", "/bench/minimal_app record"},
        {"uafd-companion record", "/bin/uafd-companion record -"},
        {"arecord", "/usr/bin/arecord -D uafd " + std::string(kNative)},
        {"arecord, periods of 10 ms",
         "/usr/bin/arecord -D uafd --period-size=480 --buffer-size=1920 " + std::string(kNative)},
        {"arecord, 44100 Hz, plug", "/usr/bin/arecord -D plug:uafd " + std::string(kOther)},
        {"sox", "/usr/bin/sox -q -t alsa uafd" + std::string(kSoxRaw)},
        {"gst-launch-1.0", kGst + std::string("alsasrc device=uafd ! fdsink fd=1")},
    };
}

std::vector<App> players() {
    return {
        {"library", "/bench/minimal_app play"},
        {"uafd-companion play", "/bin/uafd-companion play --raw -"},
        {"aplay", "/usr/bin/aplay -D uafd " + std::string(kNative)},
        {"aplay, periods of 10 ms",
         "/usr/bin/aplay -D uafd --period-size=480 --buffer-size=1920 " + std::string(kNative)},
        {"aplay, 44100 Hz, plug", "/usr/bin/aplay -D plug:uafd " + std::string(kOther)},
        {"sox", "/usr/bin/sox -q" + std::string(kSoxRaw) + "-t alsa uafd"},
        {"gst-launch-1.0", kGst + std::string("fdsrc fd=0 blocksize=1920 ! ") + kGstRaw},
    };
}

struct Usage {
    Ns appCpu;
    Ns daemonCpu;
    int64_t sleeps;
    int64_t sound;  // frames that have come through
};

// One app at work, with a daemon of its own.
class Session {
  public:
    Session(const App& app, bool records) : board("apps"), records(records) {
        board.micService = std::make_unique<board::MicService>();
        board::put(kHeardFile, "");
        if (records) {
            player = std::make_unique<board::HostPlayer>(board::noise);
        }
        const Command command = records ? commandOf(app.command, "/dev/null", kHeardFile)
                                        : commandOf(app.command, kVoiceFile);
        process = std::make_unique<Processes>(app.name, std::vector{command}, false);
        board.startDaemon();
        board.host.command(records ? "speaker on" : "mic on");
    }
    void run(Ns time) {
        for (const Ns end = board::now() + time; board::now() < end;) {
            board::sleepFor(std::min(kLookEvery, end - board::now()));
            countSound();
        }
        if (!process->allRun()) {
            throw std::runtime_error("a program has ended");
        }
    }
    Usage usage() const {
        return {board::cpuOf(pid()), board::cpuOf(board.daemon.pid()), board::sleepsOf(pid()),
                sound};
    }
    pid_t pid() const { return process->pids()[0]; }

  private:
    void countSound() {
        const std::string heard = records ? board::contents(kHeardFile) : "";
        board::Samples samples =
            records ? board::Samples(heard.size() / 4) : board.host.takeRecording();
        for (size_t i = 0; i < samples.size() && records; ++i) {
            samples[i] = static_cast<int16_t>(heard[4 * i] | heard[4 * i + 1]);
        }
        const auto sounding = std::count_if(samples.begin(), samples.end(),
                                            [](int16_t sample) { return sample != 0; });
        sound = records ? sounding : sound + sounding;
    }

    board::Board board;
    const bool records;
    std::unique_ptr<board::HostPlayer> player;
    std::unique_ptr<Processes> process;
    int64_t sound = 0;
};

void measure(const App& app, bool records, Ns measured, Table* table) {
    Session session(app, records);
    session.run(kSettling);
    const Ns from = board::now();
    const Usage before = session.usage();
    session.run(measured);
    const Usage after = session.usage();
    const double seconds = static_cast<double>(board::now() - from) / kSecond;
    const double share = static_cast<double>(after.sound - before.sound) / seconds /
                         static_cast<double>(board::kRate);
    if (share < kLeastSound) {
        throw std::runtime_error(app.name + " does not stream");
    }
    const double appRate = static_cast<double>(after.appCpu - before.appCpu) / seconds / 1e6;
    const double daemonRate =
        static_cast<double>(after.daemonCpu - before.daemonCpu) / seconds / 1e6;
    table->add(app.name, {appRate, daemonRate, appRate + daemonRate, 100 * share,
                          static_cast<double>(after.sleeps - before.sleeps) / seconds,
                          static_cast<double>(board::memoryOf(session.pid()).privateKb)});
    fprintf(stderr, "%-40s %8.3f Mi/s\n", app.name.c_str(), appRate);
}

void compare(const char* key, const char* title, const std::vector<App>& apps, bool records,
             const Options& options) {
    Table table(key, title,
                {{"app_per_s", "app, Mi/s", 3},
                 {"daemon_per_s", "daemon, Mi/s", 3},
                 {"sum_per_s", "both, Mi/s", 3},
                 {"sound_percent", "sound, %", 1},
                 {"sleeps_per_s", "app's wake-ups/s", 1},
                 {"private_kb", "private, kB", 0}});
    board::installAlsaDevice();
    for (size_t i = 0; i < std::min(apps.size(), options.subjects); ++i) {
        measure(apps[i], records, options.measured, &table);
    }
    table.publish();
}

}  // namespace

void measureAppsRecording(const Options& options) {
    compare("apps_recording", "Apps that hear the host", recorders(), true, options);
}

void measureAppsPlaying(const Options& options) {
    putVoice(2 * (2 * kSettling + options.measured) / kSecond * board::kRate);
    compare("apps_playing", "Apps that the host hears", players(), false, options);
}

}  // namespace bench
