// SPDX-License-Identifier: Apache-2.0
// Measures the latency to the host and back.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr int kQuietTicks = 3;  // before a burst
constexpr int16_t kQuietPeak = 500;
constexpr int16_t kBurstPeak = 1000;  // what comes louder is the burst
constexpr int16_t kAmplitude = 16000;
constexpr int kBurstFrames = 240;
constexpr int kHalfWaveFrames = 24;  // 1000 Hz

// Quiet, a burst, its return; over and over. The time counts from the writing of the block whose
// first frame is the burst's to the reading that brought its first frame.
class Bursts : public Handler {
  public:
    Bursts(int count, double waitSeconds)
        : left(count), waitTicks(static_cast<int>(waitSeconds / kTickS)) {}

    void onSound(const int16_t* samples, int frames) override {
        int peak = 0;
        for (int i = 0; i < frames; ++i) {
            peak = std::max(peak, std::abs(int{samples[2 * i]}));
        }
        if (sentNs == 0) {
            quietTicks = peak < kQuietPeak ? quietTicks : 0;
        } else if (peak >= kBurstPeak) {
            returned(static_cast<double>(nowNs() - sentNs) / 1e6);
        }
    }
    void fillBlock(int16_t* samples) override {
        for (int i = 0; isDue() && i < kBurstFrames; ++i) {
            const bool high = i / kHalfWaveFrames % 2 == 0;
            samples[2 * i] = samples[2 * i + 1] = high ? kAmplitude : int16_t{-kAmplitude};
        }
    }
    void onBlockTaken() override {
        if (isDue()) {
            sentNs = nowNs();
            ticks = 0;
        }
    }
    void onTick() override {
        ++ticks;
        ++quietTicks;
    }
    bool isDone() override { return left == 0 || !reason().empty(); }

    // Why it does not work; empty when it does.
    std::string reason() const {
        if (ticks < waitTicks + kQuietTicks) {
            return "";
        }
        if (sentNs != 0) {
            return "no burst came back: does the host play what it records?";
        }
        return isDue() ? "the daemon takes no sound: does the host record?"
                       : "the host plays something else: the bursts cannot be told from it";
    }
    std::vector<double> takeTimesMs() { return std::move(timesMs); }

  private:
    bool isDue() const { return sentNs == 0 && quietTicks >= kQuietTicks; }
    void returned(double ms) {
        printf("%7.2f ms\n", ms);
        fflush(stdout);
        timesMs.push_back(ms);
        --left;
        sentNs = 0;
        ticks = 0;
        quietTicks = 0;
    }

    int left;
    const int waitTicks;
    int64_t sentNs = 0;  // 0: none is on its way
    int ticks = 0;       // since the burst, or since the one before returned
    int quietTicks = 0;
    std::vector<double> timesMs;
};

class Latency final : public Command {
  public:
    Latency() noexcept
        : Command("latency", "",
                  "measure the way to the host and back, which must play what it records") {}
    int run(const std::string& argument) override;

  private:
    Number<int> count{&options, "count", "N", 1, 1000000, 10, "how many bursts (default 10)"};
    Number<double> wait{
        &options, "wait", "N", kLeastS, kDayS, 10, "seconds to wait for each (default 10)"};
};

int Latency::run(const std::string& /*argument*/) {
    Session session;
    Bursts bursts(*count, *wait);
    if (!session.open(UAFD_SOUND) || !session.run(&bursts) || Session::wasInterrupted()) {
        return kExitFailed;
    }
    if (!bursts.reason().empty()) {
        return failed(name, bursts.reason());
    }
    std::vector<double> times = bursts.takeTimesMs();
    std::sort(times.begin(), times.end());
    printf("median %.2f ms, least %.2f ms, most %.2f ms\n", times[times.size() / 2], times.front(),
           times.back());
    return kExitDone;
}

Latency latency;

}  // namespace
}  // namespace uafd
