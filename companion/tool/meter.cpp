// SPDX-License-Identifier: Apache-2.0
// Shows the level of the host's sound.
#include <cstdio>
#include <unistd.h>

#include "companion/tool/command.h"
#include "companion/tool/level.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr int kBarWidth = 48;

class Meter final : public Command, private Handler {
  public:
    Meter() noexcept : Command("meter", "", "show the level of the host's sound") {}
    int run(const std::string& argument) override;

  private:
    void onSound(const int16_t* samples, int frames) override { level.add(samples, frames); }
    void onTick() override { print(); }
    bool isDone() override { return false; }
    void print();

    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    Session session;
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    Level level;
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
    printf("%s speaker %s  peak %5.1f dB  rms %5.1f dB  |%s|%s", isTerminal ? "\r" : "",
           session.isOn(UAFD_SPEAKER_STATE) ? "on " : "off", level.peakDb(), level.rmsDb(),
           barOf(level.peakDb(), kBarWidth).c_str(), isTerminal ? "" : "\n");
    fflush(stdout);
    level.reset();
}

Meter meter;

}  // namespace
}  // namespace uafd
