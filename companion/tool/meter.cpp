#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "companion/tool/commands.h"
#include "companion/tool/level.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"

namespace {

constexpr int kTicksPerLine = 10;
constexpr int kBarWidth = 48;

class Meter : public Handler {
  public:
    Meter(const Session* session, double seconds)
        : session_(session),
          ticksLeft_(seconds > 0 ? static_cast<int64_t>(seconds / kBlockS) : INT64_MAX) {}

    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            const double sample = samples[2 * i];
            peak_ = std::max(peak_, std::abs(sample));
            squares_ += sample * sample;
        }
        frames_ += frames;
    }
    void onTick() override {
        --ticksLeft_;
        if (++ticks_ % kTicksPerLine == 0) {
            print();
        }
    }
    bool isDone() override { return ticksLeft_ <= 0; }

  private:
    // On a terminal always in the same line.
    void print() {
        const double rms = frames_ > 0 ? std::sqrt(squares_ / static_cast<double>(frames_)) : 0;
        printf("%s speaker %s  peak %5.1f dB  rms %5.1f dB  |%s|%s", isTerminal_ ? "\r" : "",
               session_->isOn(UAFD_SPEAKER_STATE) ? "on " : "off", levelOf(peak_), levelOf(rms),
               barOf(levelOf(peak_), kBarWidth).c_str(), isTerminal_ ? "" : "\n");
        fflush(stdout);
        peak_ = squares_ = 0;
        frames_ = 0;
    }

    const Session* const session_;
    const bool isTerminal_ = isatty(STDOUT_FILENO) != 0;
    int64_t ticksLeft_;
    int64_t ticks_ = 0;
    double peak_ = 0;
    double squares_ = 0;
    int64_t frames_ = 0;
};

}  // namespace

int showLevel(const CommandLine& line) {
    Session session(line.directory);
    Meter meter(&session, line.seconds);
    if (!session.open()) {
        return kExitFailed;
    }
    session.run(&meter);
    if (isatty(STDOUT_FILENO) != 0) {
        putchar('\n');
    }
    return kExitDone;
}
