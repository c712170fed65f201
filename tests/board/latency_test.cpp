// How soon the daemon answers a period: from its end in the gadget's driver to its bytes in the
// app's FIFO, and from room for it in the PCM to its samples there. Both directions run, and now
// and then change their phase, so that their periods end together, too, and in all phases to the
// app's blocks. A tool as well, see docs/reliability/realtime.md: LATENCY_SECONDS sets how long
// each case measures.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tests/board/board_case.h"
#include "tests/board/support/hogs.h"
#include "tests/board/support/perf_event.h"
#include "tests/board/support/statistics.h"
#include "tests/board/support/streaming.h"

namespace {

using board::append;
using board::kMs;
using board::kSecond;
using board::Ns;
using board::PerfEvent;
using board::PerfSample;
using board::PerfScope;

enum Direction : uint64_t { kSpeaker, kMic };  // as in the driver

constexpr Ns kPeriod = 5 * kMs;
constexpr Ns kSoon = kMs / 10;     // 99.9 % of the answers
constexpr int kHostPpb = 1000000;  // passes an app's block of 10 ms in 10 s
constexpr int kPhases = 10;
constexpr int kSecondsUnlessTold = 10;
constexpr char kWriteFrames[] = "cmd == 0x40184150";  // SNDRV_PCM_IOCTL_WRITEI_FRAMES
constexpr char kWholePeriod[] = "ret == 960";         // bytes that went into the FIFO

Ns measuredTime() {
    const char* const seconds = getenv("LATENCY_SECONDS");
    return (seconds == nullptr ? kSecondsUnlessTold : atoi(seconds)) * kSecond;
}

// Records the ends of periods, and what answers them.
class Stopwatch {
  public:
    explicit Stopwatch(const board::StreamingThreads& threads)
        : toFifo_(recorded("syscalls/sys_exit_write", threads.sink, kWholePeriod)),
          ioctlEnds_(recorded("syscalls/sys_exit_ioctl", threads.source, "")),
          toPcm_(recorded("syscalls/sys_enter_ioctl", threads.source, kWriteFrames)) {
        const board::TraceId end =
            board::traceKernel("period_end", "usb_board:gadget_pcm_period dir=+0($arg1):u32");
        for (int cpu = 0; cpu < board::processors(); ++cpu) {
            periodEnds_.push_back(PerfEvent::traced(end, PerfScope::processor(cpu)));
            periodEnds_.back().record();
        }
    }

    // At least every second.
    void look() {
        append(&toFifoAt_, board::timesOf(toFifo_.take()));
        append(&toPcmAt_, board::timesOf(toPcm_.take()));
        append(&ioctlEndAt_, board::timesOf(ioctlEnds_.take()));
        for (PerfEvent& event : periodEnds_) {
            for (const PerfSample& sample : event.take()) {
                (sample.fields[1] == kSpeaker ? speakerAt_ : micAt_).push_back(sample.at);
            }
        }
    }

    std::vector<Ns> speakerWaits() const { return waits(speakerAt_, toFifoAt_); }

    std::vector<Ns> micWaits() const {
        std::vector<Ns> written;
        for (const Ns begin : toPcmAt_) {
            const auto end = std::upper_bound(ioctlEndAt_.begin(), ioctlEndAt_.end(), begin);
            if (end != ioctlEndAt_.end()) {
                written.push_back(*end);
            }
        }
        return waits(micAt_, written);
    }

    // How many of the speaker's periods ended when one of the microphone's did.
    int64_t endedTogether() const {
        return std::count_if(speakerAt_.begin(), speakerAt_.end(), [this](Ns at) {
            const auto near = std::lower_bound(micAt_.begin(), micAt_.end(), at - kMs / 2);
            return near != micAt_.end() && *near < at + kMs / 2;
        });
    }

  private:
    static PerfEvent recorded(const char* event, pid_t tid, const char* filter) {
        PerfEvent traced = PerfEvent::traced(board::traceId(event), PerfScope::thread(tid), filter);
        traced.record();
        return traced;
    }

    // From each period's end to its answer. An answer belongs to the oldest end before it that has
    // none; the one to what ended before the recording began has none.
    static std::vector<Ns> waits(std::vector<Ns> ends, const std::vector<Ns>& answers) {
        std::sort(ends.begin(), ends.end());  // they come from several processors
        std::vector<Ns> waits;
        int unasked = 0;
        auto end = ends.begin();
        for (const Ns answer : answers) {
            if (end != ends.end() && *end < answer) {
                waits.push_back(answer - *end++);
            } else if (!waits.empty()) {
                ++unasked;
            }
        }
        EXPECT_EQ(unasked, 0);
        EXPECT_LE(ends.end() - end, 1) << "ends without an answer";
        return waits;
    }

    PerfEvent toFifo_;
    PerfEvent ioctlEnds_;  // from before the first write, which would else get the next one's end
    PerfEvent toPcm_;
    std::vector<PerfEvent> periodEnds_;  // on each processor
    std::vector<Ns> toFifoAt_;
    std::vector<Ns> toPcmAt_;
    std::vector<Ns> ioctlEndAt_;
    std::vector<Ns> speakerAt_;
    std::vector<Ns> micAt_;
};

class Latency : public BoardCase {
  protected:
    void measure(const char* how) {
        start();
        host.command("ppb " + std::to_string(kHostPpb));
        board::Streaming streaming(this);
        Stopwatch stopwatch(streaming.threads());
        for (int phase = 0; phase < kPhases; ++phase) {
            host.command("stall mic 1");
            board::sleepFor(kMs);
            host.command("stall mic 0");
            streaming.run(measuredTime() / kPhases, [&] { stopwatch.look(); });
        }
        report("period ready to bytes in the FIFO", how, stopwatch.speakerWaits());
        report("room in the PCM to samples written", how, stopwatch.micWaits());
        printf("latency: %lld periods ended together\n",
               static_cast<long long>(stopwatch.endedTogether()));
        EXPECT_GT(stopwatch.endedTogether(), 0);
        EXPECT_EQ(host.counter("capture.xruns") + host.counter("playback.xruns"), 0);
    }

    void report(const char* what, const char* how, std::vector<Ns> waits) {
        const double periods = static_cast<double>(measuredTime()) / kPeriod;
        EXPECT_NEAR(static_cast<double>(waits.size()), periods, periods / 50);
        std::sort(waits.begin(), waits.end());
        const auto us = [&](double share) {
            return static_cast<double>(board::quantileOf(waits, share)) / 1000;
        };
        const auto late = waits.end() - std::upper_bound(waits.begin(), waits.end(), kSoon);
        char line[240];
        snprintf(line, sizeof line,
                 "latency: %-34s, %-5s, %d cpus, %6zu periods: 50 %% %6.1f, 99 %% %6.1f, 99.9 %% "
                 "%6.1f, max %6.1f us; %lld above 100\n",
                 what, how, board::processors(), waits.size(), us(0.5), us(0.99), us(0.999), us(1),
                 static_cast<long long>(late));
        fputs(line, stdout);
        std::ofstream("/out/latency.txt", std::ios::app) << line;
        EXPECT_LT(board::quantileOf(waits, 0.999), kSoon);
    }
};

TEST_F(Latency, OfADaemonAlone) {
    measure("alone");
}

TEST_F(Latency, AmongBusyProcesses) {
    const board::Hogs hogs;
    const Ns from = board::now();
    measure("busy");
    const double share = static_cast<double>(hogs.cpu()) /
                         static_cast<double>((board::now() - from) * board::processors());
    printf("latency: the hogs had %.1f %% of the processors\n", 100 * share);
    EXPECT_GT(share, 0.8);
}

}  // namespace
