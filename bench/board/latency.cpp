// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/board/sections.h"
#include "bench/board/table.h"
#include "board/kit/host.h"
#include "board/kit/mic_stream.h"
#include "board/kit/perf_event.h"
#include "board/kit/statistics.h"
#include "board/kit/streaming.h"

namespace bench {
namespace {

using board::kMs;
using board::kSecond;
using board::Message;
using board::Ns;

constexpr int kStarts = 20;     // of the daemon, and of each stream
constexpr int kRequests = 500;  // messages of each kind
// The host's clock passes an app's block of 10 ms in 10 s, so that all phases between the two
// occur.
constexpr char kFastHost[] = "ppb 1000000";
constexpr char kSlowHost[] = "ppb -1000000";
constexpr double kSlowHostRate = 0.999;

// How a time spreads: count, percentiles and largest.
class SpreadTable {
  public:
    // In units of this many nanoseconds.
    SpreadTable(const char* key, const char* title, double unit, int decimals)
        : unit(unit),
          table(key, title,
                {{"count", "count", 0},
                 {"p0", "smallest", decimals},
                 {"p50", "50 %", decimals},
                 {"p90", "90 %", decimals},
                 {"p99", "99 %", decimals},
                 {"p99_9", "99.9 %", decimals},
                 {"max", "largest", decimals}}) {}

    // Throws when there are none.
    void add(const std::string& name, std::vector<board::Ns> times) {
        if (times.empty()) {
            throw std::runtime_error(name + " was never seen");
        }
        std::sort(times.begin(), times.end());
        std::vector<Figure> figures{static_cast<double>(times.size())};
        for (const double share : {0.0, 0.5, 0.9, 0.99, 0.999, 1.0}) {
            figures.emplace_back(static_cast<double>(board::quantileOf(times, share)) / unit);
        }
        table.add(name, figures);
    }

    void publish() const { table.publish(); }

  private:
    const double unit;
    Table table;
};

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(std::string("not seen: ") + what);
    }
}

// Unlike the last one, so that requests come in all phases of what streams.
Ns nextPause() {
    static int64_t draws = 0;
    return 20 * kMs + static_cast<uint16_t>(board::noise(draws++)) * 20 * kMs / 65536;
}

// The first of the host's events from `since` on that begins like this.
Ns timeOfEvent(board::Board* board, const std::string& beginning, Ns since) {
    Ns at = 0;
    require(board::waitFor([&] {
                for (const board::HostEvent& event : board->host.eventsSince(since)) {
                    if (event.text.compare(0, beginning.size(), beginning) == 0) {
                        at = event.at;
                        return true;
                    }
                }
                return false;
            }),
            beginning.c_str());
    return at;
}

// From its start to its last act before it waits for events.
std::vector<Ns> startUps() {
    std::vector<Ns> times;
    for (int i = 0; i < kStarts; ++i) {
        board::Board board("start");
        board.app = std::make_unique<board::App>();
        board::sleepFor(nextPause());
        const Ns from = board::now();
        board.daemon.start();
        times.push_back(timeOfEvent(&board, "uac INIT_SYNC", from) - from);
    }
    return times;
}

// From the host's switching a stream on to the first bytes of it at the app, or to the first frame
// that the host is sent.
void measureStreamStarts(SpreadTable* table) {
    board::Board board("streams");
    board.start();
    const board::HostPlayer player(board::noise);
    board.app->speak(board::noise);
    std::vector<Ns> toApp;
    std::vector<Ns> toHost;
    for (int i = 0; i < kStarts; ++i) {
        size_t mark = board.app->messages().size();
        board::sleepFor(nextPause());
        board.app->takeHeard();
        Ns from = board::now();
        board.host.command("speaker on");
        board::Heard heard;
        require(board::waitFor([&] {
                    heard = board.app->takeHeard();
                    return !heard.blocks.empty();
                }),
                "the speaker's first bytes");
        toApp.push_back(heard.blocks.front().at - from);
        board.host.command("speaker off");
        require(board.waitForChannel(1, false, mark), "the speaker's end");
        mark = board.app->messages().size();
        board::sleepFor(nextPause());
        from = board::now();
        board.host.command("mic on");
        require(board::waitFor([&] { return board.host.counter("mic.first_ns") != 0; }),
                "the microphone's first frame");
        toHost.push_back(board.host.counter("mic.first_ns") - from);
        board.host.command("mic off");
        require(board.waitForChannel(2, false, mark), "the microphone's end");
    }
    table->add("speaker on, to its first bytes at the app", toApp);
    table->add("microphone on, to its first frame at the host", toHost);
}

// While both directions stream.
void measureMessages(board::Board* board, SpreadTable* table) {
    const board::MessageSender sender;
    std::map<std::string, std::vector<Ns>> times;
    board::Streaming streaming(board);
    for (int i = 1; i <= kRequests; ++i) {
        const std::string value = std::to_string(i);
        const auto mute = static_cast<uint32_t>(i % 2);
        size_t seen = board->app->messages().size();
        const auto askHost = [&](const std::string& command, const char* what) {
            streaming.run(0, [] {});
            board::sleepFor(nextPause());
            const Ns from = board::now();
            board->host.command(command);
            require(board->app->waitForMessages(seen + 1), what);
            times[what].push_back(board->app->messages()[seen++].at - from);
        };
        const auto askDaemon = [&](Message message, const std::string& event, const char* what) {
            board::sleepFor(nextPause());
            const Ns from = board::now();
            require(sender.send(message) == 0, what);
            times[what].push_back(timeOfEvent(board, event, from) - from);
        };
        askHost("volume mic " + value, "the host's volume, to the app's message");
        askHost("mute mic " + std::to_string(mute), "the host's mute, to the app's message");
        askDaemon({3, static_cast<uint32_t>(i)}, "uac SET_SPK_VOLUME " + value,
                  "the app's volume, to the driver");
        askDaemon({5, mute}, "uac SET_SPK_MUTE", "the app's mute, to the driver");
        board->app->takeHeard();
        board->host.takeRecording();
    }
    for (const auto& [what, spread] : times) {
        table->add(what, spread);
    }
}

void measurePeriods(board::Board* board, Ns measured, SpreadTable* table) {
    board->host.command(kFastHost);
    board::Streaming streaming(board);
    board::AnswerTimes answers(streaming.threads(), measured);
    streaming.run(measured, [&] { answers.look(); });
    table->add("speaker: period complete, to its bytes in the FIFO", answers.speaker().times);
    table->add("microphone: room in the PCM, to its frames there", answers.mic().times);
}

// ---- The time that sound spends in each buffer -------------------------------------------------

constexpr Ns kLookEvery = kSecond / 10;
constexpr Ns kSettling = 3 * kSecond;
constexpr char kWriteFrames[] = "cmd == 0x40184150";  // SNDRV_PCM_IOCTL_WRITEI_FRAMES

// A period's frames come one USB frame after the other: the first of them waits the longest.
void addSpeaker(Ns measured, SpreadTable* table) {
    board::Board board("speaker");
    board.start();
    board.host.command(kSlowHost);
    board::Streaming streaming(&board);
    board::AnswerTimes answers(streaming.threads(), measured);
    std::vector<Ns> reads;
    for (const Ns end = board::now() + measured; board::now() < end;) {
        board::sleepFor(kLookEvery);
        answers.look();
        board.host.takeRecording();
        for (const board::HeardBlock& block : board.app->takeHeard().blocks) {
            reads.push_back(block.at);
        }
    }
    std::vector<Ns> inFifo;
    for (const Ns read : reads) {
        const auto after =
            std::upper_bound(answers.inFifoAt().begin(), answers.inFifoAt().end(), read);
        if (after != answers.inFifoAt().begin()) {
            inFifo.push_back(read - *std::prev(after));
        }
    }
    const std::vector<Ns> answered = answers.speaker().times;
    std::vector<Ns> inPcm;
    std::vector<Ns> all;
    for (size_t i = 0; i < std::min(answered.size(), inFifo.size()); ++i) {
        for (int usbFrame = 0; usbFrame < 5; ++usbFrame) {
            inPcm.push_back(usbFrame * kMs);
            all.push_back(usbFrame * kMs + answered[i] + inFifo[i]);
        }
    }
    table->add("speaker: PCM, until the period is whole", inPcm);
    table->add("speaker: daemon, from there to the FIFO", answered);
    table->add("speaker: FIFO, until the app has read it", inFifo);
    table->add("speaker: end to end, host to app", all);
}

// Every PCM write of the daemon's from the stream's start on is seen, so that the frames that the
// host records can be counted back to theirs.
void addMicrophone(Ns measured, SpreadTable* table) {
    board::Board board("microphone");
    board.start();
    board::PerfEvent writes = board::PerfEvent::traced(
        board::traceId("syscalls/sys_enter_ioctl"), board::PerfScope::processor(0), kWriteFrames);
    writes.record();
    board.host.command(kSlowHost);
    board::MicStream stream(&board, board::noise);
    std::vector<Ns> writtenAt;
    const Ns from = board::now() + kSettling;
    for (const Ns end = from + measured; board::now() < end;) {
        board::sleepFor(kLookEvery);
        board::append(&writtenAt, board::timesOf(writes.take()));
        stream.observe();
    }
    const Ns anchor = board.host.counter("mic.first_ns");
    std::vector<Ns> inPcm;
    std::vector<Ns> before;
    std::vector<Ns> all;
    for (const board::MicLatency& latency : stream.latencies()) {
        const auto write = static_cast<size_t>(latency.recordedAt / board::MicRecording::kFrame);
        const Ns recordedAt =
            anchor +
            static_cast<Ns>(static_cast<double>(latency.recordedAt * kSecond / board::kRate) /
                            kSlowHostRate);
        if (recordedAt < from || write >= writtenAt.size()) {
            continue;
        }
        inPcm.push_back(recordedAt - writtenAt[write]);
        before.push_back(latency.latency - inPcm.back());
        all.push_back(latency.latency);
    }
    table->add("microphone: FIFO and frame buffer", before);
    table->add("microphone: PCM", inPcm);
    table->add("microphone: end to end, app to host", all);
}

}  // namespace

void measureLatency(const Options& options) {
    SpreadTable table("latency", "How soon the daemon acts, in microseconds", 1000, 1);
    table.add("start, to the readiness for events", startUps());
    measureStreamStarts(&table);
    {
        board::Board board("periods");
        board.start();
        measurePeriods(&board, options.measured, &table);
    }
    {
        board::Board board("messages");
        board.start();
        measureMessages(&board, &table);
    }
    table.publish();
    SpreadTable buffers("buffer_times", "Where a sound's time goes, in milliseconds", kMs, 3);
    addSpeaker(options.measured, &buffers);
    addMicrophone(options.measured, &buffers);
    buffers.publish();
}

}  // namespace bench
