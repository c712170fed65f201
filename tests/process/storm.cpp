// SPDX-License-Identifier: Apache-2.0
#include "tests/process/storm.h"

#include <cerrno>
#include <iterator>
#include <time.h>

#include "daemon/uac_user.h"

namespace uafd::process {

namespace {

constexpr int kStepsARound = 16;

struct Step {
    const char* function;
    int code;
};
// The steps in alsa-lib that may fail.
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
    {4, "bind", [](Storm& s) { s.bindAgain(); }},
    {4, "unbind and bind", [](Storm& s) { s.unbindAndBind(); }},
    {16, "switch one stream",
     [](Storm& s) { s.daemon.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE + s.upTo(2), s.upTo(2)); }},
    {12, "switch both streams", [](Storm& s) { s.switchBoth(); }},
    {8, "switch many times", [](Storm& s) { s.switchManyTimes(); }},
    {4, "volumes and mutes", [](Storm& s) { s.sendVolumes(1 + s.upTo(16)); }},
    {1, "invalid record", [](Storm& s) { s.daemon.record(8 + s.upTo(1000), s.draw()); }},
    {2, "odd record", [](Storm& s) { s.oddRecord(); }},
    {4, "kill the app", [](Storm& s) { s.app.kill(); }},
    {8, "restart the app", [](Storm& s) { s.restartApp(); }},
    {3, "replace the FIFOs", [](Storm& s) { s.replaceFifos(); }},
    {3, "pause the app", [](Storm& s) { s.app.pause(true); }},
    {2, "flood a silent app", [](Storm& s) { s.floodSilentApp(); }},
    {6, "wake the app", [](Storm& s) { s.app.pause(false); }},
    {3, "sync-ups", [](Storm& s) { s.syncUps(); }},
    {3, "odd datagrams", [](Storm& s) { s.oddDatagrams(); }},
    {4, "USB states", [](Storm& s) { s.usbStates(); }},
    {2, "odd uevents", [](Storm& s) { s.oddUevents(); }},
    {2, "the board's own capture", [](Storm& s) { s.root.setOwnCapture(s.upTo(2) == 0); }},
    {1, "cable fault", [](Storm& s) { s.cableFault(); }},
    {6, "failing step", [](Storm& s) { s.failStep(); }},
    {3, "refused call", [](Storm& s) { s.refuseCall(); }},
    {8, "xrun or suspend",
     [](Storm& s) {
         s.daemon.command(text(s.upTo(3) == 0 ? "suspend" : "xrun", s.eitherStream()));
     }},
    {3, "stall",
     [](Storm& s) {
         s.daemon.command(
             text("stall", std::string(s.eitherStream()) + (s.upTo(2) == 0 ? " 0" : " 1")));
     }},
    {3, "lag", [](Storm& s) { s.daemon.command(text("lag", s.eitherStream())); }},
    {1, "pull the card", [](Storm& s) { s.pullCard(); }},
    {6, "plug the card", [](Storm& s) { s.plugCard(); }},
};

Storm::Storm(uint32_t seed) : daemon(root), app(root), random(seed) {}

bool Storm::begin() {
    // The daemon is waiting for the FIFOs, which do not exist yet.
    if (!daemon.waitFor([this] { return daemon.count("is not available yet") > 0; })) {
        return false;
    }
    root.makeFifos();
    app.start();
    return daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0) && daemon.settle();
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
    ++doneCounts[action->name];
    action->act(*this);
}

bool Storm::rage(int steps) {
    for (int step = 1; step <= steps; ++step) {
        act();
        letRun();
        if (!daemon.isRunning()) {
            return false;
        }
        if (step % kStepsARound == 0) {
            // Even without the app the daemon handles everything: neither a stop nor an event waits
            // for it.
            if (!daemon.settle()) {
                return false;
            }
        }
    }
    return true;
}

bool Storm::calmDown() {
    for (const Step& step : kSteps) {
        daemon.command(text("answer", std::string(step.function) + " 0 0"));
    }
    for (const Refused& refused : kCalls) {
        daemon.command(text("refuse", std::string(refused.call) + " 0 0"));
    }
    daemon.command("stall capture 0");
    daemon.command("stall playback 0");
    daemon.command("card 1");
    root.setUsbState("CONFIGURED");
    sendUsbState("CONFIGURED");
    root.makeFifos();
    app.kill();
    app.pause(false);
    restartApp();
    app.waitUntilListening();
    if (!daemon.settle()) {
        return false;
    }
    daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0);
    daemon.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE, 0);
    daemon.record(F_UAC_VEXA_USER_EVT_MIC_ACTIVE, 0);
    return daemon.settle();
}

// Sets the storm's pace: some steps follow at once, others come while the daemon is busy with the
// step before.
void Storm::letRun() {
    if (upTo(2) == 0) {
        const timespec pause{0, static_cast<long>(upTo(2000000))};
        nanosleep(&pause, nullptr);
    }
    answerNotes();
}

void Storm::answerNotes() {
    for (const std::string& note : daemon.takeNotes()) {
        if (note.rfind("system ", 0) == 0) {
            // This is the platform's restart of the controller.
            ++restarts;
            root.setUsbState("CONFIGURED");
            daemon.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
            daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0);
            sendUsbState("CONFIGURED");
        }
    }
}

void Storm::sendUsbState(const std::string& word) {
    daemon.uevent(ueventOf("change", "android_usb", "USB_STATE=" + word));
}

// ---- The gadget driver and the host ------------------------------------------------------------

void Storm::bindAgain() {
    for (uint32_t left = 1 + upTo(6); left > 0; --left) {
        daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0);
    }
}

void Storm::unbindAndBind() {
    daemon.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
    letRun();
    daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0);
}

void Storm::switchBoth() {
    const uint32_t on = upTo(2);
    daemon.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE, on);
    daemon.record(F_UAC_VEXA_USER_EVT_MIC_ACTIVE, on);
}

void Storm::switchManyTimes() {
    const uint32_t type = F_UAC_VEXA_USER_EVT_SPK_ACTIVE + upTo(2);
    for (uint32_t left = 2 + upTo(6); left > 0; --left) {
        daemon.record(type, left % 2);
        if (upTo(2) == 0) {
            letRun();
        }
    }
}

void Storm::sendVolumes(uint32_t count) {
    for (uint32_t left = count; left > 0; --left) {
        daemon.record(F_UAC_VEXA_USER_EVT_SPK_VOLUME + upTo(4), draw());
    }
}

// A record that is too short: the daemon keeps the other bytes of the record before.
void Storm::oddRecord() {
    daemon.rawRecord(std::string(upTo(8), static_cast<char>(upTo(8))));
}

// ---- The app -----------------------------------------------------------------------------------

void Storm::restartApp() {
    root.makeFifos();
    app.start();
}

void Storm::replaceFifos() {
    app.kill();
    root.removeFifo(kFifoRx);
    root.removeFifo(kFifoTx);
    letRun();
    restartApp();
}

// Queues more messages than the daemon keeps and the app's socket takes.
void Storm::floodSilentApp() {
    app.pause(true);
    sendVolumes(140);
}

void Storm::syncUps() {
    for (uint32_t left = 1 + upTo(120); left > 0; --left) {
        daemon.datagram(std::string("\7\0\0\0\0\0\0\0", 8));
    }
}

void Storm::oddDatagrams() {
    for (uint32_t left = 1 + upTo(8); left > 0; --left) {
        daemon.datagram(std::string(1 + upTo(20), static_cast<char>(upTo(9))));
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
    daemon.uevent(ueventOf("change", "android_usb", "OTHER=1"));
    daemon.uevent(ueventOf("add", "android_usb", "USB_STATE=CONFIGURED"));
    daemon.uevent(ueventOf("change", "platform", "USB_STATE=CONFIGURED"));
    daemon.uevent(ueventOf("change", "android_usb", "USB_STATE=CONFIGURED"), {1, 1});
    daemon.uevent("");
    daemon.uevent(std::string(1 + upTo(3000), static_cast<char>('0' + upTo(60))));
}

// The fault lasts until the daemon asks the platform for a restart.
void Storm::cableFault() {
    root.setUsbState("DISCONNECTED");
    const int before = restarts;
    daemon.waitFor([&] {
        answerNotes();
        return restarts > before;
    });
}

// ---- Faults ------------------------------------------------------------------------------------

void Storm::failStep() {
    const Step& step = kSteps[upTo(std::size(kSteps))];
    daemon.command(text("answer", std::string(step.function) + ' ' + std::to_string(step.code) +
                                      ' ' + std::to_string(1 + upTo(3))));
    switchBoth();
}

void Storm::refuseCall() {
    const Refused& refused = kCalls[upTo(std::size(kCalls))];
    daemon.command(text("refuse", std::string(refused.call) + ' ' + std::to_string(refused.error) +
                                      ' ' + std::to_string(1 + upTo(2))));
    switchBoth();
}

void Storm::pullCard() {
    daemon.command("card 0");
    letRun();
    daemon.record(F_UAC_VEXA_USER_EVT_UNBIND, 0);
}

void Storm::plugCard() {
    daemon.command("card 1");
    daemon.record(F_UAC_VEXA_USER_EVT_BIND, 0);
}

}  // namespace uafd::process
