// SPDX-License-Identifier: Apache-2.0
// uafd: lets the board be a USB speaker and microphone. Moves audio between the gadget's sound card
// and the companion app's FIFOs, relays volume, mute and state, and watches the cable.

#include "cable/cable_mon.h"
#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/event_loop.h"
#include "daemon/log_tag.h"
#include "daemon/startup.h"
#include "ipc/app_paths.h"
#include "ipc/uaf_ipc.h"
#include "platform/log.h"

using namespace uafd;

// Never returns once the event loop has started; a start-up failure ends the process with status
// 255.
int main() {
    occupyStandardStreams();
    UafSrc src;
    UafSnk snk;
    CableMon cableMon;
    UafIpc ipc;

    LOGD("use %s and %s\n", kFifoRxPath, kFifoTxPath);
    waitForFifos();
    const int controlFd = openGadgetControl();
    if (controlFd < 0) {
        return -1;
    }
    if (!ipc.start()) {
        // Debug level although it is fatal: the service has already logged the error.
        LOGD("failed to initialized IPC ... exiting\n");
        return -1;
    }
    cableMon.start();  // without it the daemon still streams
    requestInitialState(controlFd);
    EventLoop(src, snk).run(controlFd);
}
