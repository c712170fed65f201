// SPDX-License-Identifier: Apache-2.0
// Turns the gadget driver's event records into binding, channel starts and stops, and volume and
// mute messages. Main thread only, for the rest of the process's life; logs under the tag "UAFIFO".
#pragma once

#include "daemon/uac_user.h"

namespace uafd {

class UafSnk;
class UafSrc;

class EventLoop {
  public:
    EventLoop(UafSrc& src, UafSnk& snk) : src(src), snk(snk) {}

    // Reads records from the gadget control device and handles each, forever. After a read that
    // fails or gives nothing, it handles the previous record again and then waits 10 ms.
    [[noreturn]] void run(int controlFd);

    // Logs and handles one record; `size` is what the read that should have filled it returned.
    void handle(const UacUserMsgT& record, int size);

  private:
    void bind();
    void unbind();
    void activateSpeaker(uint32_t active);
    void activateMic(uint32_t active);
    bool missesItsBind(uint32_t active);

    UafSrc& src;       // the host's microphone
    UafSnk& snk;       // the host's speaker
    int cardnum = -1;  // index of the bound gadget card, -1 = unbound
    // Bind events that found the card, minus unbind events while bound. A card that an activation
    // has bound is not counted, but its unbinding is, so the count may go below zero. The log shows
    // it, and its readers know that rule.
    int bindcnt = 0;
    int bindbad = 0;  // activations while unbound, each of which tried to bind
};

}  // namespace uafd
