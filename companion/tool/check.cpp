// SPDX-License-Identifier: Apache-2.0
// Tests everything that an app needs from the daemon, step by step, and prints each result.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iterator>
#include <string>

#include "companion/tool/access.h"
#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr double kMeasuredS = 1;
constexpr double kRateTolerance = 0.1;  // as a share of that time's frames
constexpr int kRefusedMax = 5;          // blocks in that time
constexpr int kTakenBlocks = 100;
constexpr long kClosedNs = 200000000;

// Records what arrives until a condition holds.
class Watch final : public Handler {
  public:
    explicit Watch(std::function<bool()> condition) : condition(std::move(condition)) {}

    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            unequalFrames += samples[2 * i] != samples[2 * i + 1] ? 1 : 0;
            soundingFrames += samples[2 * i] != 0 ? 1 : 0;
        }
        heardFrames += frames;
    }
    void fillBlock(int16_t* /*samples*/) override { ++offeredBlocks; }
    void onBlockTaken() override { ++takenBlocks; }
    bool isDone() override { return conditionMet = condition(); }

    bool met() const { return conditionMet; }
    int64_t frames() const { return heardFrames; }
    int64_t unequal() const { return unequalFrames; }
    int64_t sounding() const { return soundingFrames; }
    int taken() const { return takenBlocks; }
    int refused() const { return offeredBlocks - takenBlocks; }

  private:
    const std::function<bool()> condition;
    bool conditionMet = false;
    int64_t heardFrames = 0;
    int64_t unequalFrames = 0;   // frames whose channels differ
    int64_t soundingFrames = 0;  // frames that are not silent
    int offeredBlocks = 0;       // counted like takenBlocks
    int takenBlocks = 0;
};

class Check final : public Command {
  public:
    Check() noexcept
        : Command("check", "",
                  "try everything that an app needs, while the host plays and records") {}
    int run(const std::string& argument) override;

  private:
    // Each returns what is wrong, or an empty text.
    std::string answersSyncUp();
    std::string takesVolume();
    std::string takesMute();
    std::string startsSpeaker();
    std::string bringsSound();
    std::string startsMicrophone();
    std::string takesSound();
    std::string goesOnAfterRestart();
    std::string keepsItsStates();

    void runSteps();
    void report(const char* name, const std::string& wrong);
    bool waitUntil(const std::function<bool()>& condition);
    std::string answersAfter(int sent);
    std::string waitForStream(uafd_event_type state, const char* hint);

    Number<int> volume{
        &options, "volume", "N", INT16_MIN, INT16_MAX, -2560, "the volume to set (default -2560)"};
    Number<double> wait{
        &options, "wait", "N", kLeastS, kDayS, 10, "seconds that a step may wait (default 10)"};
    Session session;
    int passed = 0;
    int failed = 0;
    bool isHopeless = false;  // the daemon does not answer, so the rest is not tried
};

int Check::run(const std::string& /*argument*/) {
    const FoundFolder folder;
    // Checked before the session makes files that app or daemon could not open.
    const std::string obstacle = findObstacle();
    const bool isOpen = obstacle.empty() && session.open(UAFD_ALL);
    if (isOpen || !obstacle.empty()) {
        report("daemon and app may open each other's files", obstacle);
        isHopeless = !isOpen;
        runSteps();
    }
    if (obstacle.empty()) {
        folder.restore(session.isOn(UAFD_DAEMON_STATE));
    }
    return isOpen && failed == 0 && !Session::wasInterrupted() ? kExitDone : kExitFailed;
}

void Check::runSteps() {
    struct Step {
        const char* name;
        std::string (Check::*run)();
    };
    static constexpr Step kSteps[] = {
        {"a sync-up is answered", &Check::answersSyncUp},
        {"the speaker's volume is accepted", &Check::takesVolume},
        {"the speaker's mute is accepted", &Check::takesMute},
        {"the speaker stream is on", &Check::startsSpeaker},
        {"the host's sound arrives complete", &Check::bringsSound},
        {"the microphone stream is on", &Check::startsMicrophone},
        {"the app's sound is accepted", &Check::takesSound},
        {"both streams go on when the FIFOs reopen", &Check::goesOnAfterRestart},
        {"both streams are still on", &Check::keepsItsStates},
    };
    int untried = static_cast<int>(std::size(kSteps));
    for (const Step& step : kSteps) {
        if (isHopeless || Session::wasInterrupted()) {
            break;
        }
        const std::string wrong = (this->*step.run)();
        if (!Session::wasInterrupted()) {
            report(step.name, wrong);
            --untried;
        }
    }
    const std::string rest = untried > 0 ? ", " + std::to_string(untried) + " not tried" : "";
    printf("%d passed, %d failed%s%s\n", passed, failed, rest.c_str(),
           Session::wasInterrupted() ? ", interrupted" : "");
}

void Check::report(const char* name, const std::string& wrong) {
    (wrong.empty() ? passed : failed) += 1;
    printf("%s  %s%s%s\n", wrong.empty() ? "ok  " : "FAIL", name, wrong.empty() ? "" : ": ",
           wrong.c_str());
    fflush(stdout);
}

bool Check::waitUntil(const std::function<bool()>& condition) {
    Watch watch(condition);
    session.run(&watch, *wait);
    return watch.met();
}

std::string Check::answersSyncUp() {
    if (waitUntil([this] { return session.isAnswered(); })) {
        return session.isOn(UAFD_USB_STATE) ? "" : "the host has not configured the board";
    }
    if (session.told(UAFD_USB_STATE)) {
        return "the answer is incomplete";
    }
    isHopeless = true;
    if (!session.isOn(UAFD_DAEMON_STATE)) {
        return "no daemon runs, or it waits for FIFOs that it may not open";
    }
    std::string obstacle = findObstacle();  // the daemon's user may have become known only now
    return obstacle.empty() ? "no answer" : obstacle;
}

// Whether a daemon that accepted the message still answers.
std::string Check::answersAfter(int sent) {
    if (sent != 0) {
        return uafd_companion_error_text(sent);
    }
    session.forgetStates();
    session.companion.sync();
    return waitUntil([this] { return session.told(UAFD_USB_STATE).has_value(); })
               ? ""
               : "no answer to a sync-up afterwards";
}

std::string Check::takesVolume() {
    return answersAfter(session.companion.setSpeakerVolume(static_cast<int16_t>(*volume)));
}

std::string Check::takesMute() {
    const std::string wrong = answersAfter(session.companion.setSpeakerMute(true));
    return wrong.empty() ? answersAfter(session.companion.setSpeakerMute(false)) : wrong;
}

std::string Check::waitForStream(uafd_event_type state, const char* hint) {
    return waitUntil([this, state] { return session.isOn(state); }) ? "" : hint;
}

std::string Check::startsSpeaker() {
    return waitForStream(UAFD_SPEAKER_STATE, "it is off: does the host play?");
}

std::string Check::startsMicrophone() {
    return waitForStream(UAFD_MIC_STATE, "it is off: does the host record?");
}

std::string Check::bringsSound() {
    Watch first([&first] { return first.frames() > 0; });
    session.run(&first, *wait);
    if (!first.met()) {
        return "no frame arrived";
    }
    const int64_t begin = nowNs();
    Watch watch([] { return false; });
    session.run(&watch, kMeasuredS);
    const double rate =
        static_cast<double>(watch.frames()) * 1e9 / static_cast<double>(nowNs() - begin);
    if (watch.unequal() > 0) {
        return "left and right differ";
    }
    if (watch.sounding() == 0) {
        return "nothing but silence: does the host play?";
    }
    return std::abs(rate / UAFD_RATE - 1) > kRateTolerance
               ? std::to_string(std::lround(rate)) + " frames a second"
               : "";
}

std::string Check::takesSound() {
    Watch first([&first] { return first.taken() > 0; });
    session.run(&first, *wait);
    if (!first.met()) {
        return "no block is accepted";
    }
    Watch watch([] { return false; });
    session.run(&watch, kMeasuredS);
    return watch.refused() > kRefusedMax
               ? std::to_string(watch.refused()) + " blocks are refused in a second"
               : "";
}

std::string Check::goesOnAfterRestart() {
    session.close();
    const timespec pause = {0, kClosedNs};
    nanosleep(&pause, nullptr);
    if (!session.open(UAFD_ALL)) {
        return "the FIFOs or the socket do not open";
    }
    Watch watch([&watch] { return watch.sounding() > 0 && watch.taken() >= kTakenBlocks; });
    session.run(&watch, *wait);
    if (watch.met()) {
        return "";
    }
    return watch.sounding() == 0 ? "the host's sound does not arrive"
                                 : "the app's sound is not accepted";
}

std::string Check::keepsItsStates() {
    session.forgetStates();
    std::string wrong = answersAfter(0);
    if (!wrong.empty()) {
        return wrong;
    }
    if (!waitUntil([this] { return session.isAnswered(); })) {
        return "the answer is incomplete";
    }
    return session.isOn(UAFD_SPEAKER_STATE) && session.isOn(UAFD_MIC_STATE)
               ? ""
               : "one of the streams is off";
}

Check check;

}  // namespace
}  // namespace uafd
