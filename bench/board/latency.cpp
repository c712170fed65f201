// SPDX-License-Identifier: Apache-2.0
#include "bench/board/latency.h"

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/board/buffer_times.h"
#include "bench/board/spread_table.h"
#include "board/kit/answer_times.h"
#include "board/kit/host_player.h"
#include "board/kit/streaming.h"

namespace bench {
namespace {

using board::kMs;
using board::kSecond;
using board::Message;
using board::Ns;

constexpr int kStarts = 20;                   // of the daemon, and of each stream
constexpr int kRequests = 500;                // messages of each kind
constexpr char kHostClock[] = "ppb 1000000";  // passes an app's block of 10 ms in 10 s

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
    board->host.command(kHostClock);
    board::Streaming streaming(board);
    board::AnswerTimes answers(streaming.threads(), measured);
    streaming.run(measured, [&] { answers.look(); });
    table->add("speaker: period complete, to its bytes in the FIFO", answers.speaker().times);
    table->add("microphone: room in the PCM, to its frames there", answers.mic().times);
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
    measureBufferTimes(options);
}

}  // namespace bench
