// SPDX-License-Identifier: Apache-2.0
// uafd: lets the board be a USB speaker and microphone. Moves audio between the gadget's sound card
// and the companion app's FIFOs, relays volume, mute and state, and watches the cable.

#include <android/log.h>

#include "cable/cable_mon.h"
#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/event_loop.h"
#include "daemon/startup.h"
#include "ipc/app_paths.h"
#include "ipc/uaf_ipc.h"

// Never returns once the event loop has started; a start-up failure ends the process with status
// 255.
int main() {
    constexpr char LOG_TAG[] = "UAFIFO";
    occupyStandardStreams();
    UafSrc src;
    UafSnk snk;
    CableMon cableMon;
    UafIpc ipc;

    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "use %s and %s\n", FIFO_RX_PATH, FIFO_TX_PATH);
    waitForFifos();
    const int controlFd = openGadgetControl();
    if (controlFd < 0) {
        return -1;
    }
    if (!ipc.start()) {
        // Fatal, but at debug level: the service has reported its error itself.
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "failed to initialized IPC ... exiting\n");
        return -1;
    }
    cableMon.start();  // without it the daemon still streams
    requestInitialState(controlFd);
    EventLoop(src, snk).run(controlFd);
}
