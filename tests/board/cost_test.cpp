// What the daemon costs: processor time for a second of audio, and memory. On the board's virtual
// clock a nanosecond of processor time is one instruction.
#include <cstdio>
#include <fstream>

#include "tests/board/board_case.h"
#include "tests/board/support/host_player.h"

namespace {

using board::HostPlayer;
using board::kMs;
using board::kSecond;
using board::Ns;

constexpr Ns kSettling = 5 * kSecond;
constexpr Ns kMeasured = 60 * kSecond;
// Generous: a thousandth of a small core at 1 GHz would be a million.
constexpr int64_t kInstructionsPerSecondMax = 50000000;
constexpr int64_t kResidentKbMax = 8192;
constexpr int64_t kPrivateKbMax = 2048;

class Cost : public BoardCase {
  protected:
    void measure(const char* what, bool speaker, bool mic) {
        start();
        const HostPlayer player(board::noise);
        app->speak(board::noise);
        if (speaker) {
            host.command("speaker on");
        }
        if (mic) {
            host.command("mic on");
        }
        board::sleepFor(kSettling);
        const Ns before = board::cpuOf(daemon.pid());
        for (Ns end = board::now() + kMeasured; board::now() < end;) {
            board::sleepFor(5 * kSecond);
            app->takeHeard();
            host.takeRecording();
        }
        const int64_t perSecond = (board::cpuOf(daemon.pid()) - before) / (kMeasured / kSecond);
        const board::MemoryView memory = board::memoryOf(daemon.pid());
        report(what, perSecond, memory);
        EXPECT_LT(perSecond, kInstructionsPerSecondMax);
        EXPECT_GT(perSecond, 10000) << "nothing was streamed";
        EXPECT_LT(memory.residentKb, kResidentKbMax);
        EXPECT_LT(memory.privateKb, kPrivateKbMax);
    }

    void report(const char* what, int64_t perSecond, board::MemoryView memory) {
        char line[160];
        snprintf(line, sizeof line,
                 "cost: %-10s %9lld instructions for a second of audio, %lld kB resident, %lld kB "
                 "private\n",
                 what, static_cast<long long>(perSecond), static_cast<long long>(memory.residentKb),
                 static_cast<long long>(memory.privateKb));
        fputs(line, stdout);
        std::ofstream("/out/cost.txt", std::ios::app) << line;
    }
};

TEST_F(Cost, OfTheSpeaker) {
    measure("speaker", true, false);
}

TEST_F(Cost, OfTheMicrophone) {
    measure("microphone", false, true);
}

TEST_F(Cost, OfBothDirections) {
    measure("both", true, true);
}

TEST_F(Cost, OfDoingNothing) {
    start();
    board::sleepFor(kSettling);
    const Ns before = board::cpuOf(daemon.pid());
    board::sleepFor(kMeasured);
    const int64_t perSecond = (board::cpuOf(daemon.pid()) - before) / (kMeasured / kSecond);
    report("idle", perSecond, board::memoryOf(daemon.pid()));
    EXPECT_LT(perSecond, kMs);
}

}  // namespace
