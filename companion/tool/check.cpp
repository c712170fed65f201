// A walk through all that an app needs of the daemon, each step with what it found.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "companion/tool/commands.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"

namespace {

constexpr int kMeasuredTicks = 100;
constexpr double kRateTolerance = 0.1;  // of a second of reading
constexpr int kRefusedMax = 5;          // blocks of a second of writing
constexpr int kClosedTicks = 20;

// What came until a condition held.
class Watch : public Handler {
  public:
    explicit Watch(std::function<bool()> condition, double limitSeconds)
        : condition_(std::move(condition)), limitTicks_(static_cast<int>(limitSeconds / kBlockS)) {}

    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            unequal_ += samples[2 * i] != samples[2 * i + 1] ? 1 : 0;
            sounding_ += samples[2 * i] != 0 ? 1 : 0;
        }
        frames_ += frames;
    }
    void onBlockTaken() override { ++taken_; }
    void onTick() override { ++ticks_; }
    bool isDone() override { return ticks_ >= limitTicks_ || (met_ = condition_()); }

    bool met() const { return met_; }
    int64_t frames() const { return frames_; }
    int64_t unequal() const { return unequal_; }
    int64_t sounding() const { return sounding_; }
    int taken() const { return taken_; }
    int ticks() const { return ticks_; }

  private:
    const std::function<bool()> condition_;
    const int limitTicks_;
    bool met_ = false;
    int64_t frames_ = 0;
    int64_t unequal_ = 0;   // frames whose channels differ
    int64_t sounding_ = 0;  // frames that are not silent
    int taken_ = 0;
    int ticks_ = 0;
};

class Check {
  public:
    explicit Check(const CommandLine& line)
        : session_(line.directory),
          waitSeconds_(line.waitSeconds),
          volume_(static_cast<int16_t>(line.volume)) {}

    int run();

  private:
    // Each returns what is wrong, or nothing.
    std::string answersSyncUp();
    std::string takesVolume();
    std::string takesMute();
    std::string startsSpeaker();
    std::string bringsSound();
    std::string startsMicrophone();
    std::string takesSound();
    std::string goesOnAfterRestart();
    std::string keepsItsStates();

    bool waitUntil(const std::function<bool()>& condition);
    std::string answersAfter(int sent);
    std::string waitForStream(uafd_event_type state, const char* hint);

    Session session_;
    const double waitSeconds_;
    const int16_t volume_;
    bool interrupted_ = false;
};

int Check::run() {
    struct Step {
        const char* name;
        std::string (Check::*run)();
    };
    static constexpr Step kSteps[] = {
        {"a sync-up is answered", &Check::answersSyncUp},
        {"the speaker's volume is taken", &Check::takesVolume},
        {"the speaker's mute is taken", &Check::takesMute},
        {"the speaker stream is on", &Check::startsSpeaker},
        {"the host's sound comes whole", &Check::bringsSound},
        {"the microphone stream is on", &Check::startsMicrophone},
        {"the app's sound is taken", &Check::takesSound},
        {"both go on with new FIFO ends", &Check::goesOnAfterRestart},
        {"the states are as told", &Check::keepsItsStates},
    };
    if (!session_.open()) {
        return kExitFailed;
    }
    int passed = 0;
    int failed = 0;
    for (const Step& step : kSteps) {
        const std::string wrong = (this->*step.run)();
        if (interrupted_) {
            break;
        }
        (wrong.empty() ? passed : failed) += 1;
        printf("%s  %s%s%s\n", wrong.empty() ? "ok  " : "FAIL", step.name,
               wrong.empty() ? "" : ": ", wrong.c_str());
        fflush(stdout);
    }
    printf("%d passed, %d failed%s\n", passed, failed, interrupted_ ? ", interrupted" : "");
    return failed == 0 && !interrupted_ ? kExitDone : kExitFailed;
}

bool Check::waitUntil(const std::function<bool()>& condition) {
    Watch watch(condition, waitSeconds_);
    interrupted_ = !session_.run(&watch);
    return watch.met();
}

std::string Check::answersSyncUp() {
    const auto answered = [this] {
        return session_.told(UAFD_USB_STATE) == 0 ||
               (session_.isOn(UAFD_USB_STATE) && session_.told(UAFD_SPEAKER_STATE) &&
                session_.told(UAFD_MIC_STATE));
    };
    if (!waitUntil(answered)) {
        return session_.told(UAFD_USB_STATE) ? "the answer is not whole" : "no answer";
    }
    return session_.isOn(UAFD_USB_STATE) ? "" : "the host has not configured the board";
}

// A daemon that took the message still answers.
std::string Check::answersAfter(int sent) {
    if (sent != 0) {
        return reasonOf(sent);
    }
    session_.forget(UAFD_USB_STATE);
    session_.companion().sync();
    return waitUntil([this] { return session_.told(UAFD_USB_STATE).has_value(); })
               ? ""
               : "no answer to a sync-up afterwards";
}

std::string Check::takesVolume() {
    return answersAfter(session_.companion().setSpeakerVolume(volume_));
}

std::string Check::takesMute() {
    const std::string wrong = answersAfter(session_.companion().setSpeakerMute(true));
    return wrong.empty() ? answersAfter(session_.companion().setSpeakerMute(false)) : wrong;
}

std::string Check::waitForStream(uafd_event_type state, const char* hint) {
    return waitUntil([this, state] { return session_.isOn(state); }) ? "" : hint;
}

std::string Check::startsSpeaker() {
    return waitForStream(UAFD_SPEAKER_STATE, "it is off: does the host play?");
}

std::string Check::startsMicrophone() {
    return waitForStream(UAFD_MIC_STATE, "it is off: does the host record?");
}

std::string Check::bringsSound() {
    Watch first([&first] { return first.frames() > 0; }, waitSeconds_);
    interrupted_ = !session_.run(&first);
    if (!first.met()) {
        return "no frame came";
    }
    const int64_t begin = nowNs();
    Watch watch([&watch] { return watch.ticks() >= kMeasuredTicks; }, waitSeconds_);
    interrupted_ = !session_.run(&watch);
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
    Watch first([&first] { return first.taken() > 0; }, waitSeconds_);
    interrupted_ = !session_.run(&first);
    if (!first.met()) {
        return "no block is taken";
    }
    Watch watch([&watch] { return watch.ticks() >= kMeasuredTicks; }, waitSeconds_);
    interrupted_ = !session_.run(&watch);
    const int refused = watch.ticks() - watch.taken();
    return refused > kRefusedMax ? std::to_string(refused) + " blocks of a second are refused" : "";
}

std::string Check::goesOnAfterRestart() {
    session_.close();
    timespec pause{0, kClosedTicks * static_cast<long>(UAFD_BLOCK_NS)};
    nanosleep(&pause, nullptr);
    if (!session_.open()) {
        return "they do not open";
    }
    Watch watch([&watch] { return watch.sounding() > 0 && watch.taken() >= kMeasuredTicks; },
                waitSeconds_);
    interrupted_ = !session_.run(&watch);
    if (watch.met()) {
        return "";
    }
    return watch.sounding() == 0 ? "the host's sound does not come" : "the app's is not taken";
}

std::string Check::keepsItsStates() {
    for (const uafd_event_type type : {UAFD_USB_STATE, UAFD_SPEAKER_STATE, UAFD_MIC_STATE}) {
        session_.forget(type);
    }
    const std::string wrong = answersAfter(0);
    if (!wrong.empty() ||
        !waitUntil([this] { return session_.told(UAFD_MIC_STATE).has_value(); })) {
        return wrong.empty() ? "the answer is not whole" : wrong;
    }
    return session_.isOn(UAFD_SPEAKER_STATE) && session_.isOn(UAFD_MIC_STATE)
               ? ""
               : "a stream is off that was on";
}

}  // namespace

int checkDaemon(const CommandLine& line) {
    return Check(line).run();
}
