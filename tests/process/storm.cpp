// SPDX-License-Identifier: Apache-2.0
#include "tests/process/storm.h"

#include <cerrno>
#include <iterator>
#include <time.h>

#include "daemon/uac_user.h"

namespace process {

namespace {

constexpr int kStepsARound = 16;

struct Step {
    const char* function;
    int code;
};
// What may fail of alsa-lib.
constexpr Step kSteps[] = {
    {"snd_pcm_open", -EBUSY},
    {"snd_pcm_hw_params_any", -ENODEV},
    {"snd_pcm_hw_params_set_rate_near", -EINVAL},
    {"snd_pcm_hw_params", -EIO},
    {"snd_pcm_sw_params", -EINVAL},
    {"snd_pcm_prepare", -ENODEV},
    {"snd_pcm_start", -EPIPE},
    {"snd_pcm_start", -ENODEV},
    {"snd_pcm_resume", -EAGAIN},
    {"snd_pcm_resume", -ENOSYS},
    {"snd_pcm_wait", -ENODEV},
    {"snd_pcm_wait", 0},
    {"snd_pcm_readi", -EIO},
    {"snd_pcm_readi", -EPIPE},
    {"snd_pcm_writei", -EIO},
    {"snd_pcm_writei", -EPIPE},
    {"snd_pcm_status_malloc", -ENOMEM},
    {"snd_ctl_open", -ENOENT},
    {"snd_ctl_card_info", -EIO},
    {"snd_card_next", -ENOENT},
};

struct Refused {
    const char* call;
    int error;
};
constexpr Refused kCalls[] = {
    {"open", EMFILE},           {"read", EINTR},    {"ioctl", EINVAL},
    {"fcntl", EPERM},           {"recvmsg", EINTR}, {"recvmsg", ENOBUFS},
    {"sendto", ECONNREFUSED},   {"strdup", ENOMEM}, {"malloc", ENOMEM},
    {"pthread_create", EAGAIN},
};

std::string text(const char* verb, const std::string& rest) {
    return std::string(verb) + ' ' + rest;
}

std::string ueventOf(const std::string& action, const std::string& subsystem,
                     const std::string& parameter) {
    std::string bytes = action + "@/devices/virtual/android_usb/android0";
    for (const std::string& field :
         {"ACTION=" + action, "SUBSYSTEM=" + subsystem, parameter, std::string("SEQNUM=1")}) {
        bytes += '\0' + field;
    }
    return bytes + '\0';
}

}  // namespace

const Storm::Action Storm::kActions[] = {
    {4, "bind", &Storm::bindAgain},
    {4, "unbind and bind", &Storm::unbindAndBind},
    {16, "switch one stream", &Storm::switchOne},
    {12, "switch both streams", &Storm::switchBoth},
    {8, "switch many times", &Storm::switchManyTimes},
    {4, "volumes and mutes", &Storm::volumesAndMutes},
    {1, "invalid record", &Storm::invalidRecord},
    {2, "odd record", &Storm::oddRecord},
    {4, "kill the app", &Storm::killApp},
    {8, "restart the app", &Storm::restartApp},
    {3, "replace the FIFOs", &Storm::replaceFifos},
    {3, "pause the app", &Storm::pauseApp},
    {2, "flood a silent app", &Storm::floodSilentApp},
    {6, "wake the app", &Storm::wakeApp},
    {3, "sync-ups", &Storm::syncUps},
    {3, "odd datagrams", &Storm::oddDatagrams},
    {4, "USB states", &Storm::usbStates},
    {2, "odd uevents", &Storm::oddUevents},
    {2, "the board's own capture", &Storm::switchOwnCapture},
    {1, "cable fault", &Storm::cableFault},
    {6, "failing step", &Storm::failStep},
    {3, "refused call", &Storm::refuseCall},
    {8, "xrun or suspend", &Storm::stopPcm},
    {3, "stall", &Storm::stallStream},
    {3, "lag", &Storm::lag},
    {1, "pull the card", &Storm::pullCard},
    {6, "plug the card", &Storm::plugCard},
};

Storm::Storm(uint32_t seed) : random_(seed), daemon_(root_), app_(root_) {}

bool Storm::begin() {
    // It waits for FIFOs that are not there yet.
    if (!daemon_.waitFor([this] { return daemon_.count("is not available yet") > 0; })) {
        return false;
    }
    root_.makeFifos();
    app_.start();
    return daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0) && daemon_.settle();
}

void Storm::act() {
    uint32_t weights = 0;
    for (const Action& action : kActions) {
        weights += action.weight;
    }
    uint32_t drawn = upTo(weights);
    const Action* action = kActions;
    while (drawn >= action->weight) {
        drawn -= action->weight;
        ++action;
    }
    ++done_[action->name];
    (this->*action->act)();
}

bool Storm::rage(int steps) {
    for (int step = 1; step <= steps; ++step) {
        act();
        letRun();
        if (!daemon_.isRunning()) {
            return false;
        }
        if (step % kStepsARound == 0) {
            // Whatever has become of the app: neither a stop nor an event waits for it.
            if (!daemon_.settle()) {
                return false;
            }
        }
    }
    return true;
}

bool Storm::calmDown() {
    for (const Step& step : kSteps) {
        daemon_.command(text("answer", std::string(step.function) + " 0 0"));
    }
    for (const Refused& refused : kCalls) {
        daemon_.command(text("refuse", std::string(refused.call) + " 0 0"));
    }
    daemon_.command("stall capture 0");
    daemon_.command("stall playback 0");
    daemon_.command("card 1");
    root_.setUsbState("CONFIGURED");
    sendUsbState("CONFIGURED");
    root_.makeFifos();
    app_.kill();
    wakeApp();
    restartApp();
    app_.waitUntilListening();
    if (!daemon_.settle()) {
        return false;
    }
    daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0);
    daemon_.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE, 0);
    daemon_.record(F_UAC_VEXA_USER_EVT_MIC_ACTIVE, 0);
    return daemon_.settle();
}

// The storm's pace: some steps come at once, others while the daemon is busy with the last.
void Storm::letRun() {
    if (upTo(2) == 0) {
        const timespec pause{0, static_cast<long>(upTo(2000000))};
        nanosleep(&pause, nullptr);
    }
    answerNotes();
}

void Storm::answerNotes() {
    for (const std::string& note : daemon_.takeNotes()) {
        if (note.rfind("system ", 0) == 0) {
            // The platform restarts the controller.
            ++restarts_;
            root_.setUsbState("CONFIGURED");
            daemon_.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
            daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0);
            sendUsbState("CONFIGURED");
        }
    }
}

void Storm::sendUsbState(const std::string& word) {
    daemon_.uevent(ueventOf("change", "android_usb", "USB_STATE=" + word));
}

// ---- The gadget driver and the host ------------------------------------------------------------

void Storm::bindAgain() {
    for (uint32_t left = 1 + upTo(6); left > 0; --left) {
        daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0);
    }
}

void Storm::unbindAndBind() {
    daemon_.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
    letRun();
    daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0);
}

void Storm::switchOne() {
    daemon_.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE + upTo(2), upTo(2));
}

void Storm::switchBoth() {
    const uint32_t on = upTo(2);
    daemon_.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE, on);
    daemon_.record(F_UAC_VEXA_USER_EVT_MIC_ACTIVE, on);
}

void Storm::switchManyTimes() {
    const uint32_t type = F_UAC_VEXA_USER_EVT_SPK_ACTIVE + upTo(2);
    for (uint32_t left = 2 + upTo(6); left > 0; --left) {
        daemon_.record(type, left % 2);
        if (upTo(2) == 0) {
            letRun();
        }
    }
}

void Storm::volumesAndMutes() {
    sendVolumes(1 + upTo(16));
}

void Storm::sendVolumes(uint32_t count) {
    for (uint32_t left = count; left > 0; --left) {
        daemon_.record(F_UAC_VEXA_USER_EVT_SPK_VOLUME + upTo(4), draw());
    }
}

void Storm::invalidRecord() {
    daemon_.record(8 + upTo(1000), draw());
}

// Shorter than a record; the rest of the one before stays.
void Storm::oddRecord() {
    daemon_.rawRecord(std::string(upTo(8), static_cast<char>(upTo(8))));
}

// ---- The app -----------------------------------------------------------------------------------

void Storm::killApp() {
    app_.kill();
}

void Storm::restartApp() {
    root_.makeFifos();
    app_.start();
}

void Storm::replaceFifos() {
    app_.kill();
    root_.removeFifo(kFifoRx);
    root_.removeFifo(kFifoTx);
    letRun();
    restartApp();
}

void Storm::pauseApp() {
    app_.pause(true);
}

// With more messages than the daemon keeps and the app's socket takes.
void Storm::floodSilentApp() {
    pauseApp();
    sendVolumes(140);
}

void Storm::wakeApp() {
    app_.pause(false);
}

void Storm::syncUps() {
    for (uint32_t left = 1 + upTo(120); left > 0; --left) {
        daemon_.datagram(std::string("\7\0\0\0\0\0\0\0", 8));
    }
}

void Storm::oddDatagrams() {
    for (uint32_t left = 1 + upTo(8); left > 0; --left) {
        daemon_.datagram(std::string(1 + upTo(20), static_cast<char>(upTo(9))));
    }
}

// ---- The kernel's uevents and the cable --------------------------------------------------------

void Storm::usbStates() {
    const char* const words[] = {"CONFIGURED", "DISCONNECTED", "CONNECTED", "CONFIGURED"};
    for (uint32_t left = 1 + upTo(4); left > 0; --left) {
        sendUsbState(words[upTo(std::size(words))]);
    }
}

void Storm::oddUevents() {
    daemon_.uevent(ueventOf("change", "android_usb", "OTHER=1"));
    daemon_.uevent(ueventOf("add", "android_usb", "USB_STATE=CONFIGURED"));
    daemon_.uevent(ueventOf("change", "platform", "USB_STATE=CONFIGURED"));
    daemon_.uevent(ueventOf("change", "android_usb", "USB_STATE=CONFIGURED"), {1, 1});
    daemon_.uevent("");
    daemon_.uevent(std::string(1 + upTo(3000), static_cast<char>('0' + upTo(60))));
}

// Lasts until the daemon asks the platform for a restart.
void Storm::cableFault() {
    root_.setUsbState("DISCONNECTED");
    const int before = restarts_;
    daemon_.waitFor([&] {
        answerNotes();
        return restarts_ > before;
    });
}

void Storm::switchOwnCapture() {
    root_.setOwnCapture(upTo(2) == 0);
}

// ---- Faults ------------------------------------------------------------------------------------

void Storm::failStep() {
    const Step& step = kSteps[upTo(std::size(kSteps))];
    daemon_.command(text("answer", std::string(step.function) + ' ' + std::to_string(step.code) +
                                       ' ' + std::to_string(1 + upTo(3))));
    switchBoth();
}

void Storm::refuseCall() {
    const Refused& refused = kCalls[upTo(std::size(kCalls))];
    daemon_.command(text("refuse", std::string(refused.call) + ' ' + std::to_string(refused.error) +
                                       ' ' + std::to_string(1 + upTo(2))));
    switchBoth();
}

void Storm::stopPcm() {
    daemon_.command(text(upTo(3) == 0 ? "suspend" : "xrun", eitherStream()));
}

void Storm::stallStream() {
    daemon_.command(text("stall", std::string(eitherStream()) + (upTo(2) == 0 ? " 0" : " 1")));
}

void Storm::lag() {
    daemon_.command(text("lag", eitherStream()));
}

void Storm::pullCard() {
    daemon_.command("card 0");
    letRun();
    daemon_.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
}

void Storm::plugCard() {
    daemon_.command("card 1");
    daemon_.record(F_UAC_VEXA_USER_EVT_BIND, 0);
}

}  // namespace process
