// SPDX-License-Identifier: Apache-2.0
// Connects the host with sound cards of the board: what the host plays goes to one, what another
// hears goes to the host. With it a board is a USB headset.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "companion/bridge/alsa_card.h"
#include "companion/bridge/microphone.h"
#include "companion/bridge/speaker.h"
#include "companion/bridge/status.h"
#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

constexpr char kNone[] = "none";
constexpr char kDefault[] = "default";
constexpr int kLineTicks = 5;   // between two lines on a terminal
constexpr int kJsonTicks = 10;  // between two objects
constexpr int kRetryTicks = 10;

// What alsa-lib said last. By itself it would print that for each attempt to open a card.
char alsaSaid[200];

// NOLINTNEXTLINE(cert-dcl50-cpp): alsa-lib's type of function.
void remember(const char* /*file*/, int /*line*/, const char* /*function*/, int /*error*/,
              const char* format, ...) {
    va_list values;
    va_start(values, format);
    vsnprintf(alsaSaid, sizeof alsaSaid, format, values);
    va_end(values);
}

// A configuration can be wrong in many ways, and only alsa-lib knows which.
std::string reasonOf(int error) {
    if (error == -ENOENT || error == -ENODEV) {
        return "there is no such card";
    }
    return std::string(snd_strerror(error)) +
           (error == -EINVAL && *alsaSaid != '\0' ? std::string(": ") + alsaSaid : "");
}

// A direction's card. The bridge goes on when it is lost, and takes it again when it is back.
class Side {
  public:
    Side(const char* name, const char* device, bool isPlayback, double latencyMs)
        : name(name), latencyMs(latencyMs), card(device, isPlayback) {}

    // 0 or a negative errno.
    int open() {
        *alsaSaid = '\0';
        const int error = card.open(latencyMs);
        if (error == 0) {
            tell(card.shape());
        }
        return error;
    }
    // Whether the card was lost and is back now. To be called on every tick.
    bool reopen() { return !card.isOpen() && ++ticks % kRetryTicks == 0 && open() == 0; }
    void lose(int why) {
        card.close();
        tell(reasonOf(why) + "; waiting for it");
    }
    Card* opened() { return &card; }
    bool isLost() const { return card.isOpen() && card.isGone(); }
    bool isOpen() const { return card.isOpen(); }
    void fail(int error) const { tell(reasonOf(error)); }
    const std::string& device() const { return card.name(); }

  private:
    void tell(const std::string& what) const {
        failed(std::string(name) + " " + card.name(), what);
    }

    const char* const name;
    const double latencyMs;
    AlsaCard card;
    int ticks = 0;
};

class Bridge final : public Command, private Handler {
  public:
    Bridge() noexcept
        : Command("bridge", "", "connect the host with sound cards of the board, as a headset") {}
    int run(const std::string& argument) override;

  private:
    void onSound(const int16_t* samples, int frames) override;
    void onEvent(const uafd_event& event) override;
    void fillBlock(int16_t* samples) override;
    void onBlockTaken() override { microphone->onTaken(); }
    void onTick() override;
    bool isDone() override { return false; }

    void create();
    template <typename Path>
    bool openCard(std::optional<Side>* side, std::optional<Path>* path);
    template <typename Path>
    void keep(std::optional<Side>* side, std::optional<Path>* path);
    template <typename Path>
    void check(int result, std::optional<Side>* side, std::optional<Path>* path);
    template <typename Path>
    static SideStatus statusOf(const char* shortName, const char* longName,
                               const std::optional<Side>& side, std::optional<Path>* path);
    void print();

    Text speakerDevice{&options, "speaker", "DEVICE",
                       "ALSA device for what the host plays (default: default), or none"};
    Text microphoneDevice{&options, "microphone", "DEVICE",
                          "ALSA device that the host hears (default: default), or none"};
    Number<double> latency{
        &options, "latency", "MS", 5, 500, 20, "sound kept ready in each direction (default 20)"};
    Flag applyVolume{&options, "apply-volume", "apply the host's volumes and mutes to the sound"};
    Flag json{&options, "json", "print a JSON object every second"};
    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};

    // A direction that is left out has none.
    std::optional<Side> speakerSide;
    std::optional<Side> microphoneSide;
    std::optional<Speaker> speaker;
    std::optional<Microphone> microphone;
    Session session;
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    int64_t beginNs = 0;
    int ticks = 0;
};

const char* deviceOf(const Text& option) {
    return option.orNull() == nullptr ? kDefault : option.orNull();
}

void Bridge::create() {
    if (strcmp(deviceOf(speakerDevice), kNone) != 0) {
        speakerSide.emplace("speaker", deviceOf(speakerDevice), true, *latency);
        speaker.emplace(*latency);
    }
    if (strcmp(deviceOf(microphoneDevice), kNone) != 0) {
        microphoneSide.emplace("microphone", deviceOf(microphoneDevice), false, *latency);
        microphone.emplace(*latency);
    }
}

template <typename Path>
bool Bridge::openCard(std::optional<Side>* side, std::optional<Path>* path) {
    int error = *side ? (*side)->open() : 0;
    if (*side && error == 0) {
        error = (*path)->attach((*side)->opened());
    }
    if (error < 0) {
        (*side)->fail(error);
    }
    return error == 0;
}

int Bridge::run(const std::string& /*argument*/) {
    create();
    if (!speaker && !microphone) {
        return misused("bridge: speaker and microphone are both none");
    }
    snd_lib_error_set_handler(remember);
    const unsigned parts = (speaker ? UAFD_SPEAKER : 0U) | (microphone ? UAFD_MIC : 0U) |
                           (applyVolume ? UAFD_EVENTS : 0U);
    // The cards come first: with a wrong name nothing else has happened.
    if (!openCard(&speakerSide, &speaker) || !openCard(&microphoneSide, &microphone) ||
        !session.open(parts)) {
        return kExitFailed;
    }
    beginNs = nowNs();
    const bool isRun = session.run(this, *seconds);
    if (isTerminal && !json) {
        putchar('\n');
    }
    return isRun ? kExitDone : kExitFailed;
}

template <typename Path>
void Bridge::check(int result, std::optional<Side>* side, std::optional<Path>* path) {
    if (result < 0) {
        (*path)->attach(nullptr);
        (*side)->lose(result);
    }
}

void Bridge::onSound(const int16_t* samples, int frames) {
    check(speaker->play(samples, static_cast<size_t>(frames), nowNs()), &speakerSide, &speaker);
}

void Bridge::fillBlock(int16_t* samples) {
    check(microphone->fill(samples, nowNs()), &microphoneSide, &microphone);
}

void Bridge::onEvent(const uafd_event& event) {
    if (!applyVolume) {
        return;
    }
    if (event.type == UAFD_SPEAKER_VOLUME && speaker) {
        speaker->gain.setVolume(event.value);
    } else if (event.type == UAFD_SPEAKER_MUTE && speaker) {
        speaker->gain.setMute(event.value != 0);
    } else if (event.type == UAFD_MIC_VOLUME && microphone) {
        microphone->gain.setVolume(event.value);
    } else if (event.type == UAFD_MIC_MUTE && microphone) {
        microphone->gain.setMute(event.value != 0);
    }
}

template <typename Path>
void Bridge::keep(std::optional<Side>* side, std::optional<Path>* path) {
    if (!*side) {
        return;
    }
    check((*side)->isLost() ? -ENODEV : 0, side, path);
    if ((*side)->reopen()) {
        check((*path)->attach((*side)->opened()), side, path);
    }
}

void Bridge::onTick() {
    keep(&speakerSide, &speaker);
    keep(&microphoneSide, &microphone);
    if (speaker) {
        check(speaker->watch(nowNs()), &speakerSide, &speaker);
    }
    if (++ticks % (json ? kJsonTicks : kLineTicks) == 0 && (json || isTerminal)) {
        print();
    }
}

template <typename Path>
SideStatus Bridge::statusOf(const char* shortName, const char* longName,
                            const std::optional<Side>& side, std::optional<Path>* path) {
    if (!side) {
        return {shortName, longName, "", false, 0, {}};
    }
    return {shortName,           longName,        side->device(), side->isOpen(),
            (*path)->takePeak(), (*path)->facts()};
}

void Bridge::print() {
    const SideStatus out = statusOf("spk", "speaker", speakerSide, &speaker);
    const SideStatus in = statusOf("mic", "microphone", microphoneSide, &microphone);
    if (json) {
        const double sinceStart = static_cast<double>(nowNs() - beginNs) / kNsPerSecond;
        printf("%s\n", jsonOf(sinceStart, session.isOn(UAFD_DAEMON_STATE), out, in).c_str());
    } else {
        // What is printed next begins at the line's start.
        printf("%-79s\r", lineOf(out, in).c_str());
    }
    fflush(stdout);
}

Bridge bridge;

}  // namespace
}  // namespace uafd
