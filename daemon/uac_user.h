// SPDX-License-Identifier: Apache-2.0
// The gadget control device: its node, the event records read from it and the requests made to it.
// Constants and one plain record, shared by the device's two users: the event loop, which reads the
// records, and the app IPC receive thread, which issues the speaker requests.
#pragma once

#include <cstdint>

#include <sys/ioctl.h>

namespace uafd {

// Device node, created by the daemon itself with permissions 0770 less the umask.
constexpr char kUacUserPath[] = "/dev/uac_user";
constexpr unsigned kUacUserMajor = 122;
constexpr unsigned kUacUserMinor = 0;
constexpr unsigned kUacUserPermissions = 0770;

// One event record; host byte order, one record per read.
struct UacUserMsgT {
    uint32_t type;  // UacUserEvent
    uint32_t data;  // meaning by type
};
static_assert(sizeof(UacUserMsgT) == 8, "the driver delivers 8-byte records");

// Event types. "Speaker" is the host's speaker stream (captured here), "microphone" the host's
// recording (played here).
enum UacUserEvent : uint32_t {
    F_UAC_VEXA_USER_EVT_BIND = 0,        // function bound; data not used
    F_UAC_VEXA_USER_EVT_UNBIND = 1,      // function unbound; data not used
    F_UAC_VEXA_USER_EVT_SPK_ACTIVE = 2,  // 0 = host closed its speaker stream, else opened
    F_UAC_VEXA_USER_EVT_MIC_ACTIVE = 3,  // 0 = host closed its microphone stream, else opened
    F_UAC_VEXA_USER_EVT_SPK_VOLUME = 4,  // low 16 bits: signed volume; the upper half is ignored
    F_UAC_VEXA_USER_EVT_MIC_VOLUME = 5,  // low 16 bits: signed volume; the upper half is ignored
    F_UAC_VEXA_USER_EVT_SPK_MUTE = 6,    // 0 = unmuted, else muted
    F_UAC_VEXA_USER_EVT_MIC_MUTE = 7,    // 0 = unmuted, else muted
};

// Requests; success is a result of 0.
// Pointer to a signed 16-bit volume (the first two bytes of an app message's data).
constexpr unsigned long F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME = _IOW(0xF5, 1, int16_t);
// Pointer to a 32-bit mute value, 0 = unmuted, else muted.
constexpr unsigned long F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE = _IOW(0xF5, 2, uint32_t);
// No argument (a null pointer), although the encoding declares a 4-byte read. The driver answers
// with ordinary event records that describe the current state.
constexpr unsigned long F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC = _IOR(0xF5, 3, uint32_t);

}  // namespace uafd
