// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/host_mixer.h"

#include <cmath>
#include <stdexcept>

#include "board/kit/usb/usb_host.h"

namespace board {
namespace {

constexpr double kClassUnits = 256;  // in a dB, of the messages
constexpr double kAlsaUnits = 100;   // in a dB, of alsa-lib

void require(int result, const std::string& what) {
    if (result < 0) {
        throw std::runtime_error("the host's mixer, " + what + ": " + snd_strerror(result));
    }
}

// As the host's driver names them after the terminals' types.
std::string controlOf(const Direction& direction, const char* what) {
    return (direction == kSpeakerDirection ? "PCM Playback " : "Microphone Capture ") +
           std::string(what);
}

void name(snd_ctl_elem_id_t* id, const std::string& control) {
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, control.c_str());
}

}  // namespace

HostMixer::HostMixer() {
    require(snd_ctl_open(&handle, kHostPcm, SND_CTL_NONBLOCK), "opening");
    require(snd_ctl_subscribe_events(handle, 1), "subscribing");
}

HostMixer::~HostMixer() {
    snd_ctl_close(handle);
}

std::string HostMixer::volumeControl(const Direction& direction) {
    return controlOf(direction, "Volume");
}

std::string HostMixer::muteControl(const Direction& direction) {
    return controlOf(direction, "Switch");
}

long HostMixer::value(const std::string& control) {
    snd_ctl_elem_value_t* element;
    snd_ctl_elem_value_alloca(&element);
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    name(id, control);
    snd_ctl_elem_value_set_id(element, id);
    require(snd_ctl_elem_read(handle, element), control);
    return snd_ctl_elem_value_get_integer(element, 0);
}

void HostMixer::setValue(const std::string& control, long value) {
    snd_ctl_elem_value_t* element;
    snd_ctl_elem_value_alloca(&element);
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    name(id, control);
    snd_ctl_elem_value_set_id(element, id);
    snd_ctl_elem_value_set_integer(element, 0, value);
    require(snd_ctl_elem_write(handle, element), control);
}

int HostMixer::volume(const Direction& direction) {
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    name(id, volumeControl(direction));
    long gain = 0;
    require(snd_ctl_convert_to_dB(handle, id, value(volumeControl(direction)), &gain), "dB");
    return static_cast<int>(std::lround(static_cast<double>(gain) * kClassUnits / kAlsaUnits));
}

void HostMixer::setVolume(const Direction& direction, int volume) {
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    name(id, volumeControl(direction));
    const long gain = std::lround(volume * kAlsaUnits / kClassUnits);
    long step = 0;
    require(snd_ctl_convert_from_dB(handle, id, gain, &step, 0), "dB");
    setValue(volumeControl(direction), step);
}

bool HostMixer::isMuted(const Direction& direction) {
    return value(muteControl(direction)) == 0;
}

void HostMixer::setMute(const Direction& direction, bool mute) {
    setValue(muteControl(direction), mute ? 0 : 1);
}

std::vector<std::string> HostMixer::takeEvents() {
    std::vector<std::string> controls;
    snd_ctl_event_t* event;
    snd_ctl_event_alloca(&event);
    while (snd_ctl_read(handle, event) > 0) {
        if (snd_ctl_event_get_type(event) == SND_CTL_EVENT_ELEM &&
            (snd_ctl_event_elem_get_mask(event) & SND_CTL_EVENT_MASK_VALUE) != 0) {
            controls.emplace_back(snd_ctl_event_elem_get_name(event));
        }
    }
    return controls;
}

bool HostMixer::waitForEvent(const std::string& control, Ns limit) {
    return waitFor(
        [&] {
            for (const std::string& changed : takeEvents()) {
                if (changed == control) {
                    return true;
                }
            }
            return false;
        },
        limit);
}

}  // namespace board
