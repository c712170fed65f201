// SPDX-License-Identifier: Apache-2.0
// The one record that the daemon and the companion app exchange, in both directions: eight raw
// bytes in the machine's byte order, one record per datagram, no header and no version.
#pragma once

#include <cstdint>

namespace uafd {

struct UsbAudioMsgT {
    uint32_t type;  // UsbAudioMsgType
    uint32_t data;  // value, encoded per type
};
static_assert(sizeof(UsbAudioMsgT) == 8, "one message is one 8-byte datagram");

// A code means the same quantity in both directions. The app can change only the speaker side:
// microphone volume and mute flow from the host to the app, never back.
enum UsbAudioMsgType : uint32_t {
    USB_AUDIO_MSG_USB_STATE = 0,   // to the app: 1 = configured by the host, 0 = disconnected
    USB_AUDIO_MSG_SPK_STATE = 1,   // to the app: 1 = speaker channel started, 0 = stopped
    USB_AUDIO_MSG_MIC_STATE = 2,   // to the app: 1 = microphone channel started, 0 = stopped
    USB_AUDIO_MSG_SPK_VOLUME = 3,  // both directions: signed 16-bit volume in the low half of data
    USB_AUDIO_MSG_MIC_VOLUME = 4,  // to the app: signed 16-bit volume in the low half of data
    USB_AUDIO_MSG_SPK_MUTE = 5,    // both directions: 0 = unmuted, other = muted (to the app: 1)
    USB_AUDIO_MSG_MIC_MUTE = 6,    // to the app: 0 = unmuted, 1 = muted
    USB_AUDIO_MSG_INIT_SYNC = 7,   // from the app: asks for the current state; data ignored
};

}  // namespace uafd
