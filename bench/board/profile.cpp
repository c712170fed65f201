// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/board/sections.h"
#include "bench/board/symbols.h"
#include "bench/board/table.h"
#include "board/kit/perf_event.h"
#include "board/kit/streaming.h"

namespace bench {
namespace {

using board::kSecond;
using board::Ns;

// Changes all the time, within so much, because each pass of a thread takes about as long as the
// one before it and always the same samples would hit the same code. The sampling takes
// instructions itself, some 3000 a sample, evenly over what is sampled.
constexpr Ns kSamplePeriodMin = 15000;
constexpr Ns kSamplePeriodSpread = 20000;
constexpr size_t kFunctions = 40;  // of the longest list
constexpr char kDaemonFile[] = "uafd";

// Callees by the names under which they show: a function that calls a leaf is skipped, and what a
// library does not export bears another's name.
const std::map<std::string, std::string> kKnownCalls{
    {"__write", "write"},
    {"ioctl", "snd_pcm_readi, snd_pcm_writei"},
    {"snd_spcm_init_get_params", "snd_pcm_readi, snd_pcm_writei"},
    {"snd_pcm_readi", "snd_pcm_readi, snd_pcm_writei"},
    {"snd_pcm_writei", "snd_pcm_readi, snd_pcm_writei"},
    {"pthread_mutex_trylock", "locks"},
    {"pthread_mutex_lock", "locks"},
    {"__pthread_mutex_unlock", "locks"},
    {"__nss_database_lookup", "memcpy, memset"},
    {"__xpg_strerror_r", "memcpy, memset"},
};

struct Count {
    int64_t program = 0;
    int64_t kernel = 0;
    int64_t sum() const { return program + kernel; }
};

Ns nextPeriod() {
    static int64_t draws = 0;
    return kSamplePeriodMin +
           static_cast<uint16_t>(board::noise(draws++)) * kSamplePeriodSpread / 65536;
}

using Function = std::pair<std::string, std::string>;  // file and name

// One thread's time, shared out.
class ThreadProfile {
  public:
    ThreadProfile(std::string threadName, pid_t threadId)
        : name(std::move(threadName)), tid(threadId) {}

    void add(const Symbols& symbols, const board::CallStack& stack) {
        Place place{"?", "?"};
        bool inKernel = !stack.kernel.empty();
        if (inKernel) {
            place = symbols.inKernel(stack.kernel.front());
        } else if (!stack.program.empty()) {
            const uint64_t address = stack.program.front();
            place = symbols.inProgram(address);
            // The kernel's code in which no interrupt comes, such as that which puts a thread to
            // sleep, shows where the first one can come after it.
            inKernel = symbols.followsSystemCall(address);
            if (inKernel) {
                place = {"kernel", "(no interrupts, then back to " + place.function + ")"};
            }
        }
        Count& call = callCounts[callOf(symbols, stack)];
        ++(inKernel ? call.kernel : call.program);
        ++functionSamples[{place.file, place.function}];
        ++samples;
    }

    // What a sample stands for, in instructions a second.
    double weight() const { return perSecond / static_cast<double>(samples); }
    const std::map<std::string, Count>& calls() const { return callCounts; }
    const std::map<Function, int64_t>& functions() const { return functionSamples; }

    const std::string name;
    const pid_t tid;
    double perSecond = 0;  // instructions, without the sampling

  private:
    // The library's function that the daemon's innermost function has called, or "uafd" for what
    // runs in the daemon itself.
    static std::string callOf(const Symbols& symbols, const board::CallStack& stack) {
        std::string callee = kDaemonFile;
        for (const uint64_t address : stack.program) {
            const Place place = symbols.inProgram(address);
            if (place.file == kDaemonFile) {
                break;
            }
            callee = place.function;
        }
        const auto known = kKnownCalls.find(callee);
        return known == kKnownCalls.end() ? callee : known->second;
    }

    int64_t samples = 0;
    std::map<std::string, Count> callCounts;
    std::map<Function, int64_t> functionSamples;
};

Ns cpuOfThread(pid_t pid, pid_t tid) {
    for (const board::ThreadView& thread : board::threadsOf(pid)) {
        if (thread.tid == tid) {
            return thread.cpu;
        }
    }
    throw std::runtime_error("a thread has ended");
}

template <typename Key, typename Value, typename Size>
std::vector<std::pair<Key, Value>> sortedBy(const std::map<Key, Value>& map, Size&& size) {
    std::vector<std::pair<Key, Value>> sorted(map.begin(), map.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [&](const auto& a, const auto& b) { return size(a.second) > size(b.second); });
    return sorted;
}

void publishCalls(const std::vector<ThreadProfile>& threads) {
    Table table("profile_calls", "Where the instructions go, by what the daemon calls",
                {{"program_per_s", "program, ki/s", 1},
                 {"kernel_per_s", "kernel, ki/s", 1},
                 {"sum_per_s", "sum, ki/s", 1}});
    for (const ThreadProfile& thread : threads) {
        const double kilo = thread.weight() / 1000;
        const auto calls = sortedBy(thread.calls(), [](const Count& call) { return call.sum(); });
        for (const auto& [call, count] : calls) {
            if (kilo * static_cast<double>(count.sum()) >= 1) {
                table.add(thread.name + ": " + call, {kilo * static_cast<double>(count.program),
                                                      kilo * static_cast<double>(count.kernel),
                                                      kilo * static_cast<double>(count.sum())});
            }
        }
    }
    table.publish();
}

void publishFunctions(const std::vector<ThreadProfile>& threads) {
    std::map<Function, double> all;
    for (const ThreadProfile& thread : threads) {
        for (const auto& [function, samples] : thread.functions()) {
            all[function] += thread.weight() * static_cast<double>(samples) / 1000;
        }
    }
    Table table("profile_functions", "Where the instructions go, by function",
                {{"per_s", "ki/s", 1}});
    const auto sorted = sortedBy(all, [](double perSecond) { return perSecond; });
    for (size_t i = 0; i < std::min(kFunctions, sorted.size()); ++i) {
        table.add(sorted[i].first.first + ": " + sorted[i].first.second, {sorted[i].second});
    }
    table.publish();
}

}  // namespace

void measureProfile(const Options& options) {
    board::Board board("profile");
    board.start();
    board::Streaming streaming(&board);
    const pid_t pid = board.daemon.pid();
    const board::StreamingThreads tids = streaming.threads();
    std::vector<ThreadProfile> threads{
        {"speaker", tids.sink}, {"microphone", tids.source}, {"microphone's FIFO", tids.buffer}};
    const double seconds = static_cast<double>(options.measured) / kSecond;
    for (ThreadProfile& thread : threads) {
        thread.perSecond = -static_cast<double>(cpuOfThread(pid, thread.tid)) / seconds;
    }
    streaming.run(options.measured, [] {});
    std::vector<board::PerfEvent> events;
    for (ThreadProfile& thread : threads) {
        thread.perSecond += static_cast<double>(cpuOfThread(pid, thread.tid)) / seconds;
        events.push_back(
            board::PerfEvent::cpuTime(nextPeriod(), board::PerfScope::thread(thread.tid)));
        events.back().record();
    }
    const Symbols symbols(pid);
    streaming.run(options.measured, [&] {
        for (size_t i = 0; i < threads.size(); ++i) {
            for (const board::CallStack& stack : events[i].takeStacks()) {
                threads[i].add(symbols, stack);
            }
            events[i].setPeriod(nextPeriod());
        }
    });
    publishCalls(threads);
    publishFunctions(threads);
}

}  // namespace bench
