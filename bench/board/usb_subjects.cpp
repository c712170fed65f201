// SPDX-License-Identifier: Apache-2.0
#include "bench/board/usb_subject.h"
#include "board/kit/app.h"

namespace bench {
namespace {

using board::kFifoRx;
using board::kFifoTx;
using Attributes = std::map<std::string, std::string>;

// As for the simulated gadget's card: the daemon's period and PCM buffers, as far as they can be
// had. The kernel's gadget grants four periods to play where three are asked for.
const std::string kArecord =
    "/usr/bin/arecord -q -t raw -f S16_LE -r 48000 -c 2 --period-size=240 --buffer-size=2400 -D ";
const std::string kAplay =
    "/usr/bin/aplay -q -t raw -f S16_LE -r 48000 -c 2 --period-size=240 --buffer-size=720 -D ";
// The least latencies with which no mode loses sound, of those that were tried: 720, 840 and 960
// frames to the app, 480 to 960 from it.
const std::string kAlsaloop = "/usr/bin/alsaloop -f S16_LE -c 1 -r 48000 --period=240 ";
constexpr char kLoopToApp[] = "--latency=960 ";
constexpr char kLoopFromApp[] = "--latency=480 ";
const std::string kCard = "hw:UAC2Gadget";
const Attributes kStereo = {{"c_chmask", "3"}, {"p_chmask", "3"}};

// arecord and aplay on the kernel's card.
UsbSubject recordAndPlay(const std::string& name, const std::string& pcm,
                         const Attributes& attributes, size_t channels, bool speaker, bool mic) {
    UsbSubject subject{name, "uac2", attributes, channels, {}, false};
    if (speaker) {
        subject.commands.push_back(commandOf(kArecord + pcm, "/dev/null", kFifoRx));
    }
    if (mic) {
        subject.commands.push_back(commandOf(kAplay + pcm, kFifoTx));
    }
    return subject;
}

// The mode that lets the gadget's own clock follow: the speaker's with the host's packets, the
// microphone's with what the gadget sends.
constexpr char kPitch[] = "pitch";

UsbSubject loop(const std::string& mode, const char* number, bool speaker, bool mic) {
    const bool isPitch = mode == kPitch;
    UsbSubject subject{"u_audio, alsaloop, " + mode, "uac2", {}, 1, {}, true};
    if (speaker) {
        subject.commands.push_back(commandOf(kAlsaloop + kLoopToApp + "-C " + kCard +
                                                 " -P hw:3,0,0 -S " +
                                                 (isPitch ? "captshift" : number),
                                             "/dev/null"));
    }
    if (mic) {
        subject.commands.push_back(commandOf(kAlsaloop + kLoopFromApp + "-C hw:3,1,1 -P " + kCard +
                                                 " -S " + (isPitch ? "playshift" : number),
                                             "/dev/null"));
    }
    return subject;
}

}  // namespace

std::vector<UsbSubject> usbSubjects(bool speaker, bool mic) {
    return {
        {"usb_f_vexa, uafd", "vexa", {}, 1, {commandOf("/bench/uafd")}, false},
        recordAndPlay("u_audio, arecord and aplay, plughw", "plughw:UAC2Gadget", {}, 1, speaker,
                      mic),
        recordAndPlay("u_audio in stereo, arecord and aplay", kCard, kStereo, 2, speaker, mic),
        loop("simple", "1", speaker, mic),
        loop(kPitch, "", speaker, mic),
        loop("samplerate", "4", speaker, mic),
        {"usb_f_vexa, nobody", "vexa", {}, 1, {}, false},
        {"u_audio, nobody", "uac2", {}, 1, {}, false},
        {"u_audio in stereo, nobody", "uac2", kStereo, 2, {}, false},
    };
}

}  // namespace bench
