// SPDX-License-Identifier: Apache-2.0
// Connects the host with sound cards of the board: what the host plays goes to one, what another
// hears goes to the host. With it a board is a USB headset.
#include <cstdarg>
#include <cstdio>
#include <type_traits>
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

// A direction and its card. The bridge goes on when the card is lost, and takes it again when it is
// back.
template <typename Direction>
class Side {
  public:
    Side(const char* shortName, const char* name, const char* device, double latencyMs)
        : direction(latencyMs),
          shortName(shortName),
          name(name),
          latencyMs(latencyMs),
          card(device, std::is_same_v<Direction, Speaker>) {}

    // False, with a message, when there is no such card.
    bool begin() {
        int error = open();
        error = error == 0 ? direction.attach(&card) : error;
        if (error < 0) {
            tell(reasonOf(error));
        }
        return error == 0;
    }
    // What the direction has returned: an error loses the card.
    void check(int result) {
        if (result < 0) {
            direction.attach(nullptr);
            card.close();
            tell(reasonOf(result) + "; waiting for it");
        }
    }
    // To be called on every tick.
    void keep() {
        check(card.isOpen() && card.isGone() ? -ENODEV : 0);
        if (!card.isOpen() && ++ticks % kRetryTicks == 0 && open() == 0) {
            check(direction.attach(&card));
        }
    }
    SideStatus status() {
        return {shortName,        name, card.name(), card.isOpen(), direction.takePeak(),
                direction.facts()};
    }

    Direction direction;

  private:
    // 0 or a negative errno.
    int open() {
        *alsaSaid = '\0';
        const int error = card.open(latencyMs);
        if (error == 0) {
            tell(card.shape());
        }
        return error;
    }
    void tell(const std::string& what) const {
        failed(std::string(name) + " " + card.name(), what);
    }

    const char* const shortName;
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
    void onBlockTaken() override { microphone->direction.onTaken(); }
    void onTick() override;
    bool isDone() override { return false; }

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
    std::optional<Side<Speaker>> speaker;
    std::optional<Side<Microphone>> microphone;
    Session session;
    const bool isTerminal = isatty(STDOUT_FILENO) != 0;
    int64_t beginNs = 0;
    int ticks = 0;
};

template <typename Direction>
void create(std::optional<Side<Direction>>* side, const char* shortName, const char* name,
            const Text& device, double latencyMs) {
    const std::string given = device.orNull() == nullptr ? kDefault : device.orNull();
    if (given != kNone) {
        side->emplace(shortName, name, given.c_str(), latencyMs);
    }
}

int Bridge::run(const std::string& /*argument*/) {
    create(&speaker, "spk", "speaker", speakerDevice, *latency);
    create(&microphone, "mic", "microphone", microphoneDevice, *latency);
    if (!speaker && !microphone) {
        return misused("bridge: speaker and microphone are both none");
    }
    snd_lib_error_set_handler(remember);
    const unsigned parts = (speaker ? UAFD_SPEAKER : 0U) | (microphone ? UAFD_MIC : 0U) |
                           (applyVolume ? UAFD_EVENTS : 0U);
    // The cards come first: with a wrong name nothing else has happened.
    if ((speaker && !speaker->begin()) || (microphone && !microphone->begin()) ||
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

void Bridge::onSound(const int16_t* samples, int frames) {
    speaker->check(speaker->direction.play(samples, static_cast<size_t>(frames), nowNs()));
}

void Bridge::fillBlock(int16_t* samples) {
    microphone->check(microphone->direction.fill(samples, nowNs()));
}

void Bridge::onEvent(const uafd_event& event) {
    if (!applyVolume) {
        return;
    }
    if (event.type == UAFD_SPEAKER_VOLUME && speaker) {
        speaker->direction.gain.setVolume(event.value);
    } else if (event.type == UAFD_SPEAKER_MUTE && speaker) {
        speaker->direction.gain.setMute(event.value != 0);
    } else if (event.type == UAFD_MIC_VOLUME && microphone) {
        microphone->direction.gain.setVolume(event.value);
    } else if (event.type == UAFD_MIC_MUTE && microphone) {
        microphone->direction.gain.setMute(event.value != 0);
    }
}

void Bridge::onTick() {
    if (speaker) {
        speaker->keep();
        speaker->check(speaker->direction.watch(nowNs()));
    }
    if (microphone) {
        microphone->keep();
    }
    if (++ticks % (json ? kJsonTicks : kLineTicks) == 0 && (json || isTerminal)) {
        print();
    }
}

void Bridge::print() {
    const SideStatus out = speaker ? speaker->status() : SideStatus{"spk", "speaker"};
    const SideStatus in = microphone ? microphone->status() : SideStatus{"mic", "microphone"};
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
