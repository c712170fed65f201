// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include <sys/stat.h>

#include "bench/board/sections.h"
#include "bench/board/subject.h"
#include "bench/board/table.h"
#include "board/kit/board.h"
#include "board/kit/host.h"
#include "board/kit/ramp_check.h"

namespace bench {
namespace {

using board::kMs;
using board::kSecond;
using board::Ns;

constexpr Ns kSettling = 5 * kSecond;
// The host's clock is slow enough to pass an app's block of 10 ms in a minute: all phases between
// the two occur, as they do in life, and nobody runs dry.
constexpr char kHostClock[] = "ppb -166667";
constexpr char kDaemon[] = "uafd";
constexpr double kSilence = 0.01;
constexpr Ns kLookEvery = 5 * kSecond;

struct Usage {
    Ns cpu = 0;
    int64_t sleeps = 0;
    int64_t starts = 0;     // of PCMs
    double soundShare = 0;  // seconds of sound that came through
    Ns helpersCpu = 0;
    int64_t privateKb = 0;
    size_t threads = 0;
};

Usage usageOf(const std::vector<pid_t>& pids) {
    Usage usage;
    for (const pid_t pid : pids) {
        usage.cpu += board::cpuOf(pid);
        usage.sleeps += board::sleepsOf(pid);
        usage.privateKb += board::memoryOf(pid).privateKb;
        usage.threads += board::threadsOf(pid).size();
    }
    return usage;
}

double fileKb(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        board::fail(path);
    }
    return static_cast<double>(status.st_size) / 1024;
}

// One direction of one subject's run.
class Stream {
  public:
    Stream(board::Board* board, const board::Direction& direction, bool hasTrail)
        : board(board), direction(direction) {
        if (hasTrail) {
            rampCheck = std::make_unique<board::RampCheck>(board, direction);
        } else if (isSpeaker()) {
            player = std::make_unique<board::HostPlayer>(board::noise);
        }
        board->host.command(std::string(direction.name) + " on");
    }

    // When the subject's PCM first moved.
    Ns runningAt() const {
        return isSpeaker() ? board->host.frameTime("speaker", counter("speaker.start_frames"))
                           : counter("mic.first_ns");
    }
    // How often the subject had to start its PCM so far.
    int64_t starts() const { return counter(std::string(direction.pcm) + ".starts"); }

    void look() {
        if (rampCheck) {
            rampCheck->collect();
            return;
        }
        const board::Samples sound =
            isSpeaker() ? board->app->takeHeard().left : board->host.takeRecording();
        soundingFrames +=
            std::count_if(sound.begin(), sound.end(), [](int16_t s) { return s != 0; });
    }

    // How many frames of sound have come through so far.
    int64_t sounding() {
        if (!rampCheck) {
            return soundingFrames;
        }
        int64_t frames = 0;
        for (const board::Section& section : rampCheck->sections()) {
            frames += section.frames;
        }
        return frames;
    }
    // And how many should in a second; where a mono stream is taken for a stereo one, half.
    int64_t expectedPerSecond() const {
        return !rampCheck && isSpeaker() ? board::kRate / 2 : board::kRate;
    }

    Figure latencyMs(Ns from, Ns to) {
        const board::Spread spread = rampCheck ? rampCheck->latency(from, to) : board::Spread{};
        return spread.median > 0 ? Figure(static_cast<double>(spread.median) / kMs) : Figure();
    }

  private:
    bool isSpeaker() const { return direction == board::kSpeakerDirection; }
    int64_t counter(const std::string& key) const { return board->host.counter(key); }

    board::Board* const board;
    const board::Direction direction;
    std::unique_ptr<board::RampCheck> rampCheck;
    std::unique_ptr<board::HostPlayer> player;
    int64_t soundingFrames = 0;
};

// One subject at work.
class Session {
  public:
    Session(const Subject& subject, const std::vector<board::Direction>& directions)
        : board("cost") {
        board::AppOptions options;
        options.equalChannels = true;  // some mix them
        board.micService = std::make_unique<board::MicService>();
        board.app = std::make_unique<board::App>(options);
        board.host.command(kHostClock);
        for (const board::Direction& direction : directions) {
            openStreams.push_back(std::make_unique<Stream>(&board, direction, subject.speaksToApp));
        }
        helpers = std::make_unique<Processes>("helpers", subject.helpers, true);
        // The daemon sees to its own scheduling.
        measured =
            std::make_unique<Processes>(subject.name, subject.commands, subject.name != kDaemon);
    }

    void run(Ns time) {
        for (const Ns end = board::now() + time; board::now() < end;) {
            board::sleepFor(kLookEvery);
            for (const auto& stream : openStreams) {
                stream->look();
            }
        }
        if (!measured->allRun() || !helpers->allRun()) {
            throw std::runtime_error("a program has ended");
        }
    }

    Usage usage() {
        Usage usage = usageOf(measured->pids());
        for (const auto& stream : openStreams) {
            usage.starts += stream->starts();
            usage.soundShare += static_cast<double>(stream->sounding()) /
                                static_cast<double>(stream->expectedPerSecond()) /
                                static_cast<double>(openStreams.size());
        }
        usage.helpersCpu = usageOf(helpers->pids()).cpu;
        return usage;
    }
    Ns startTime() const {
        Ns runningAt = 0;
        for (const auto& stream : openStreams) {
            runningAt = std::max(runningAt, stream->runningAt());
        }
        return runningAt - measured->startedAt;
    }
    const std::vector<std::unique_ptr<Stream>>& streams() const { return openStreams; }

  private:
    board::Board board;
    std::vector<std::unique_ptr<Stream>> openStreams;
    std::unique_ptr<Processes> helpers;
    std::unique_ptr<Processes> measured;
};

// `uafdPerSecond`: the daemon's instructions, which are the first to be known.
void measure(const Subject& subject, const std::vector<board::Direction>& directions, Ns measured,
             double* uafdPerSecond, Table* table) {
    Session session(subject, directions);
    session.run(kSettling);
    const Ns start = session.startTime();
    const Ns from = board::now();
    const Usage before = session.usage();
    session.run(measured);
    const Usage after = session.usage();
    const Ns to = board::now();
    const double seconds = static_cast<double>(to - from) / kSecond;
    const double sound = (after.soundShare - before.soundShare) / seconds;
    if (sound < kSilence) {
        throw std::runtime_error(subject.name + " does not stream");
    }
    const double perSecond = static_cast<double>(after.cpu - before.cpu) / seconds / 1e6;
    *uafdPerSecond = subject.name == kDaemon ? perSecond : *uafdPerSecond;
    table->add(
        subject.name,
        {perSecond, perSecond / *uafdPerSecond,
         subject.helpers.empty()
             ? Figure()
             : Figure(static_cast<double>(after.helpersCpu - before.helpersCpu) / seconds / 1e6),
         100 * sound, directions.size() == 1 ? session.streams()[0]->latencyMs(from, to) : Figure(),
         static_cast<double>(start) / kMs, static_cast<double>(after.privateKb),
         fileKb(subject.commands[0].words[0]), static_cast<double>(after.threads),
         static_cast<double>(after.sleeps - before.sleeps) / seconds,
         static_cast<double>(after.starts - before.starts)});
    fprintf(stderr, "%-40s %8.3f Mi/s\n", subject.name.c_str(), perSecond);
}

void compare(const char* key, const char* title, const std::vector<board::Direction>& directions,
             const std::vector<Subject>& subjects, const Options& options) {
    loadLoopbackCard(2);
    putVoice((kSettling + options.measured) / kSecond * board::kRate * 11 / 10);
    Table table(key, title,
                {{"instructions_per_s", "Mi/s", 3},
                 {"to_uafd", "to uafd", 2},
                 {"helpers_per_s", "app's side, Mi/s", 3},
                 {"sound_percent", "sound, %", 1},
                 {"latency_ms", "latency, ms", 2},
                 {"start_ms", "start, ms", 1},
                 {"private_kb", "private, kB", 0},
                 {"program_kb", "program, kB", 1},
                 {"threads", "threads", 0},
                 {"sleeps_per_s", "wake-ups/s", 1},
                 {"restarts", "restarts", 0}});
    double uafdPerSecond = 0;
    for (size_t i = 0; i < std::min(subjects.size(), options.subjects); ++i) {
        measure(subjects[i], directions, options.measured, &uafdPerSecond, &table);
    }
    table.publish();
}

}  // namespace

void measureSpeaker(const Options& options) {
    compare("speaker", "Speaker: the host's sound into the app's FIFO", {board::kSpeakerDirection},
            speakerSubjects(), options);
}

void measureMicrophone(const Options& options) {
    compare("microphone", "Microphone: the app's FIFO into the host's recording",
            {board::kMicDirection}, micSubjects(), options);
}

void measureBoth(const Options& options) {
    compare("both", "Both directions at once", {board::kSpeakerDirection, board::kMicDirection},
            bothSubjects(), options);
}

}  // namespace bench
