// SPDX-License-Identifier: Apache-2.0
// Shows the level of the host's sound.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr int kBarWidth = 48;
constexpr double kSilenceDb = -96;  // the quietest level of 16 bits
constexpr double kBarDb = 48;       // the range of the bar, from empty to full

// The level of an amplitude, relative to full scale.
double levelOf(double amplitude) {
    return amplitude > 0 ? std::max(kSilenceDb, 20 * std::log10(amplitude / INT16_MAX))
                         : kSilenceDb;
}

std::string barOf(double levelDb) {
    const double part = std::clamp(1 + levelDb / kBarDb, 0.0, 1.0);
    std::string bar(static_cast<size_t>(std::lround(part * kBarWidth)), '#');
    bar.resize(kBarWidth, ' ');
    return bar;
}

class Meter final : public Command, private Handler {
  public:
    Meter() noexcept : Command("meter", "", "show the level of the host's sound") {}
    int run(const std::string& argument) override;

  private:
    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            const double sample = samples[2 * i];
            peak = std::max(peak, std::abs(sample));
            squares += sample * sample;
        }
        heardFrames += frames;
    }
    void onTick() override { print(); }
    bool isDone() override { return false; }
    void print();

    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Session session;
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    double peak = 0;
    double squares = 0;
    int64_t heardFrames = 0;
};

int Meter::run(const std::string& /*argument*/) {
    const bool isRun = session.open(UAFD_SPEAKER) && session.run(this, *seconds);
    if (isTerminal) {
        putchar('\n');
    }
    return isRun ? kExitDone : kExitFailed;
}

// On a terminal this rewrites the same line.
void Meter::print() {
    const double rms = heardFrames > 0 ? std::sqrt(squares / static_cast<double>(heardFrames)) : 0;
    printf("%s speaker %s  peak %5.1f dB  rms %5.1f dB  |%s|%s", isTerminal ? "\r" : "",
           session.isOn(UAFD_SPEAKER_STATE) ? "on " : "off", levelOf(peak), levelOf(rms),
           barOf(levelOf(peak)).c_str(), isTerminal ? "" : "\n");
    fflush(stdout);
    peak = squares = 0;
    heardFrames = 0;
}

Meter meter;

}  // namespace
}  // namespace uafd
