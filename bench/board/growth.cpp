// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/board/sections.h"
#include "bench/board/table.h"
#include "board/kit/board.h"
#include "board/kit/host.h"

namespace bench {
namespace {

using board::kMs;
using board::kSecond;
using board::Ns;

constexpr int kRates[] = {1, 10, 100, 1000, 10000};  // a second
constexpr Ns kLongest = 10 * kSecond;                // of a rate's measurement
constexpr int kMostItems = 2000;                     // in it
// Up to what fits into the FIFO at once; whole blocks are 1920.
constexpr size_t kChunks[] = {480, 960, 1920, 3840};
constexpr Ns kBefore = 10 * kSecond;  // how long it idles before items come
constexpr int kPendingStep = 10;
constexpr int kPendingMost = 140;  // past the queue's limit
constexpr Ns kHour = 3600 * kSecond;

struct Use {
    Ns cpu;
    int64_t privateKb;
};

Use useOf(const board::Board& board) {
    return {board::cpuOf(board.daemon.pid()), board::memoryOf(board.daemon.pid()).privateKb};
}

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error("not seen: " + what);
    }
}

double mega(Ns cpu, Ns time) {
    return static_cast<double>(cpu) / 1e6 * kSecond / static_cast<double>(time);
}

// Lets `act(i)` happen so often a second, then `isDone` come true, and adds what that took; of each
// item, what it took beyond idling.
void measureItems(Table* table, const board::Board& board, const std::string& name, int rate,
                  const std::function<void(int)>& act, const std::function<bool()>& isDone) {
    const int items = static_cast<int>(std::min<Ns>(kMostItems, kLongest / kSecond * rate));
    Ns cpu = useOf(board).cpu;
    board::sleepFor(kBefore);
    const Ns idleCpu = useOf(board).cpu - cpu;
    cpu += idleCpu;
    const Ns from = board::now();
    for (int i = 0; i < items; ++i) {
        board::sleepUntil(from + i * kSecond / rate);
        act(i);
    }
    require(board::waitFor(isDone, 60 * kSecond), name);
    const Use use = useOf(board);
    const Ns time = board::now() - from;
    const double forItems = static_cast<double>(use.cpu - cpu) -
                            static_cast<double>(idleCpu) * static_cast<double>(time) / kBefore;
    table->add(name, {mega(use.cpu - cpu, time), forItems / items / 1000,
                      static_cast<double>(use.privateKb)});
}

void addMessages(Table* table, int rate) {
    board::Board board("messages");
    board.start();
    const board::MessageSender sender;
    int last = 0;
    measureItems(
        table, board, std::to_string(rate) + " messages of the app a second", rate,
        [&](int i) {
            last = i + 1;
            sender.send(board::Message{3, static_cast<uint32_t>(last)});
        },
        [&] { return board.host.counter("speaker.volume") == last; });
}

void addEvents(Table* table, int rate) {
    board::Board board("events");
    board.start();
    uint32_t last = 0;
    measureItems(
        table, board, std::to_string(rate) + " events of the host a second", rate,
        [&](int i) {
            last = static_cast<uint32_t>(i + 1);
            board.host.command("volume mic " + std::to_string(last));
        },
        [&] {
            const std::vector<board::Message> told = board.app->messageValues();
            return !told.empty() && told.back() == board::Message{4, last};
        });
}

// An app that does not take its messages: its socket holds some, the daemon's queue the next, and
// each further message replaces the newest.
void addPending(Table* table) {
    board::AppOptions options;
    options.socket = false;
    board::Board board("pending");
    board.start(true, options);
    const board::MessageSocket idle;
    board::sleepFor(30 * kSecond);  // what was said before the socket was there is given up
    for (int pending = kPendingStep; pending <= kPendingMost; pending += kPendingStep) {
        const Ns cpu = useOf(board).cpu;
        for (int i = 0; i < kPendingStep; ++i) {
            board.host.command("volume mic " + std::to_string(pending + i));
            require(board.settle(), "an event handled");
            board::sleepFor(10 * kMs);
        }
        const Use use = useOf(board);
        table->add("up to " + std::to_string(pending) + " messages pending",
                   {Figure(), static_cast<double>(use.cpu - cpu) / kPendingStep / 1000,
                    static_cast<double>(use.privateKb)});
    }
}

// A second of the microphone's.
void addChunks(Table* table, size_t bytes, Ns measured) {
    board::AppOptions options;
    options.chunkBytes = bytes;
    board::Board board("chunks");
    board.start(true, options);
    board.app->speak(board::noise);
    board.host.command("mic on");
    board::sleepFor(3 * kSecond);
    const Ns cpu = useOf(board).cpu;
    for (const Ns end = board::now() + measured; board::now() < end;) {
        board::sleepFor(kSecond);
        board.host.takeRecording();
    }
    const Use use = useOf(board);
    table->add("microphone, written " + std::to_string(bytes) + " bytes at a time",
               {mega(use.cpu - cpu, measured), Figure(), static_cast<double>(use.privateKb)});
}

// Streaming in the first hour and in the twenty-fourth, and the quiet hours between.
void addUptime(Table* table, Ns measured) {
    board::Board board("uptime");
    board.start();
    const Ns born = board::now();
    const auto stream = [&](const char* hour) {
        board.app->speak(board::noise);
        const board::HostPlayer player(board::noise);
        board.host.command("speaker on");
        board.host.command("mic on");
        board::sleepFor(10 * kSecond);
        const Ns cpu = useOf(board).cpu;
        const Ns end = board::now() + measured;
        while (board::now() < end) {
            board::sleepFor(kSecond);
            board.app->takeHeard();
            board.host.takeRecording();
        }
        const Use use = useOf(board);
        table->add(std::string("both directions, ") + hour,
                   {mega(use.cpu - cpu, measured), Figure(), static_cast<double>(use.privateKb)});
        const size_t mark = board.app->messages().size();
        board.host.command("speaker off");
        board.host.command("mic off");
        require(board.waitForChannel(1, false, mark) && board.waitForChannel(2, false, mark),
                "the streams' end");
    };
    const auto beQuiet = [&](const char* hour, Ns until) {
        // Nobody else runs either, so that the hours pass at once.
        board.app.reset();
        board.micService.reset();
        const Ns from = board::now();
        const Ns cpu = useOf(board).cpu;
        board::sleepUntil(until);
        const double perSecond = mega(useOf(board).cpu - cpu, board::now() - from);
        // Who uses the same libraries decides what is private.
        board.micService = std::make_unique<board::MicService>();
        board.app = std::make_unique<board::App>();
        table->add(std::string("idle, ") + hour,
                   {perSecond, Figure(), static_cast<double>(useOf(board).privateKb)});
    };
    stream("in the first hour");
    beQuiet("in the first hour", born + kHour);
    beQuiet("second to twenty-third hour", born + 23 * kHour);
    stream("in the twenty-fourth hour");
    beQuiet("in the twenty-fourth hour", born + 24 * kHour);
}

}  // namespace

void measureGrowth(const Options& options) {
    Table table("growth", "What it costs as it grows",
                {{"instructions_per_s", "Mi/s", 3},
                 {"per_item", "ki each", 2},
                 {"private_kb", "private, kB", 0}});
    for (const int rate : kRates) {
        addMessages(&table, rate);
    }
    for (const int rate : kRates) {
        addEvents(&table, rate);
    }
    addPending(&table);
    for (const size_t chunk : kChunks) {
        addChunks(&table, chunk, options.measured);
    }
    addUptime(&table, options.measured);
    table.publish();
}

}  // namespace bench
