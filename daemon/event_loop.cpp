// SPDX-License-Identifier: Apache-2.0
#include "daemon/event_loop.h"

#include <unistd.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/card_binding.h"
#include "daemon/log_tag.h"
#include "ipc/usb_audio_msg.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr useconds_t kFailedReadPauseUs = 10000;

// No event: what the record holds before the first successful read.
constexpr uint32_t kInvalidEvent = 0xFFFFFFFF;

// The driver's signed 16-bit volume; the upper half of the word is not part of it.
int16_t volumeOf(uint32_t data) {
    return static_cast<int16_t>(data & 0xFFFF);
}

}  // namespace

void EventLoop::run(int controlFd) {
    UacUserMsgT record{kInvalidEvent, 0};
    for (;;) {
        // The read's result is logged, and the record is handled whatever it is. A short read
        // leaves the rest of the record as it was, and after a read that gives nothing the previous
        // record is handled once more. That is harmless, because an event states what is, not what
        // changed. Handled again, it sends a volume or mute to the app again, starts a stream that
        // has failed since, and counts a bind in bindcnt, an activation without a card in bindbad.
        const ssize_t size = read(controlFd, &record, sizeof record);
        handle(record, static_cast<int>(size));
        if (size <= 0) {
            usleep(kFailedReadPauseUs);  // a device that has gone away fails every read at once
        }
    }
}

void EventLoop::handle(const UacUserMsgT& record, int size) {
    const uint32_t data = record.data;
    LOGD(
        "read msg: type=%u, data=0x%08x, size=%d; "
        "state={cardnum:%d bindcnt=%d bindbad:%d}\n",
        record.type, data, size, cardnum, bindcnt, bindbad);
    switch (record.type) {
        case F_UAC_VEXA_USER_EVT_BIND:
            bind();
            break;
        case F_UAC_VEXA_USER_EVT_UNBIND:
            unbind();
            break;
        case F_UAC_VEXA_USER_EVT_SPK_ACTIVE:
            activateSpeaker(data);
            break;
        case F_UAC_VEXA_USER_EVT_MIC_ACTIVE:
            activateMic(data);
            break;
        case F_UAC_VEXA_USER_EVT_SPK_VOLUME:
            snk.setVolume(volumeOf(data), USB_AUDIO_MSG_SPK_VOLUME);
            break;
        case F_UAC_VEXA_USER_EVT_MIC_VOLUME:
            src.setVolume(volumeOf(data), USB_AUDIO_MSG_MIC_VOLUME);
            break;
        case F_UAC_VEXA_USER_EVT_SPK_MUTE:
            snk.setMute(data != 0, USB_AUDIO_MSG_SPK_MUTE);
            break;
        case F_UAC_VEXA_USER_EVT_MIC_MUTE:
            src.setMute(data != 0, USB_AUDIO_MSG_MIC_MUTE);
            break;
        default:
            LOGE("invalid msg: type=%u\n", record.type);
    }
}

// Even when already bound, this searches the card and sets the channels' names again.
void EventLoop::bind() {
    cardnum = uafBind(&src, &snk);
    if (cardnum != -1) {
        ++bindcnt;
    }
}

void EventLoop::unbind() {
    if (cardnum != -1) {
        --bindcnt;
        src.intfUpdate(false);
        snk.intfUpdate(false);
        src.setDevName(nullptr, nullptr);
        snk.setDevName(nullptr, nullptr);
    }
    LOGD("UAC Vexa is disabled, bindcnt=%d, bindbad=%d\n", bindcnt, bindbad);
    cardnum = -1;
}

void EventLoop::activateSpeaker(uint32_t active) {
    if (missesItsBind(active)) {
        LOGE("Speaker active while USB is not binded, will try binding it now, bindbad=%d\n",
             bindbad);
        cardnum = uafBind(&src, &snk);
    }
    snk.intfUpdate(active != 0);
}

void EventLoop::activateMic(uint32_t active) {
    if (missesItsBind(active)) {
        LOGE("Mic active while USB is not binded, will try binding it now, bindbad=%d\n", bindbad);
        cardnum = uafBind(&src, &snk);
    }
    src.intfUpdate(active != 0);
}

// Whether a stream is switched on while no card is bound: before its bind event, or after one that
// came too early for the card. Counts these activations.
bool EventLoop::missesItsBind(uint32_t active) {
    const bool missed = cardnum == -1 && active != 0;
    bindbad += missed ? 1 : 0;
    return missed;
}

}  // namespace uafd
