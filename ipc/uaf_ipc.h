#pragma once

#include "ipc/usb_audio_msg.h"

class UafIpc {
  public:
    static const UsbAudioMsgT UafIpcConnectedMsg;
    static const UsbAudioMsgT UafIpcDisconnectedMsg;

    UafIpc();
    virtual ~UafIpc();
    bool start();
    static void queueMsg(const UsbAudioMsgT& msg);
};
