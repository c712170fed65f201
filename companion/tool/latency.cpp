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
constexpr int16_t kBurstPeak = 1000;  // louder sound is the burst
constexpr int16_t kAmplitude = 16000;
constexpr int kBurstFrames = 240;
constexpr int kHalfWaveFrames = 24;  // 1000 Hz

// Repeats silence, a burst and its return. The time counts from when the block that begins with the
// burst is written to when the burst's first frame is read.
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

    // Why it does not work; empty when it works.
    std::string reason() const {
        if (ticks < waitTicks + kQuietTicks) {
            return "";
        }
        if (sentNs != 0) {
            return "no burst came back: does the host play what it records?";
        }
        return isDue() ? "the daemon accepts no sound: does the host record?"
                       : "the host plays other sound, which hides the bursts";
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
    int64_t sentNs = 0;  // 0 when no burst is on its way
    int ticks = 0;       // since the burst, or since the last one returned
    int quietTicks = 0;
    std::vector<double> timesMs;
};

class Latency final : public Command {
  public:
    Latency() noexcept
        : Command("latency", "",
                  "measure the delay to the host and back; the host must play what it records") {}
    int run(const std::string& argument) override;

  private:
    Number<int> count{&options, "count", "N", 1, 1000000, 10, "number of bursts (default 10)"};
    Number<double> wait{
        &options, "wait", "N", kLeastS, kDayS, 10, "seconds to wait for each burst (default 10)"};
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
    printf("median %.2f ms, lowest %.2f ms, highest %.2f ms\n", times[times.size() / 2],
           times.front(), times.back());
    return kExitDone;
}

Latency latency;

}  // namespace
}  // namespace uafd
