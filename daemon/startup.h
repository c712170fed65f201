// SPDX-License-Identifier: Apache-2.0
// What happens before the event loop: opening missing standard streams, waiting for the companion
// app, opening the gadget control device, asking the driver for its state. Main thread only; logs
// under the tag "UAFIFO".
#pragma once

namespace uafd {

// Opens /dev/null in place of each standard stream that was closed when the daemon was started.
// Otherwise the first files that it opens would get these numbers: the app would get log lines as
// sound, and a FIFO with descriptor 0 counts as closed. Call it before anything opens a file. Logs
// nothing.
void occupyStandardStreams();

// Returns once the companion app holds the other end of both FIFOs: each is opened, which blocks
// until then, and closed again. An open that fails, for whatever reason, is retried every 200 ms
// without limit. Logs at debug level: the first failure, every 1500th after it, and the end.
void waitForFifos();

// Creates the gadget control device's node, taking an existing one as it is, and opens it for
// reading, blocking. Returns the descriptor, or -1 after an error line.
int openGadgetControl();

// Asks the driver to report its current state as ordinary event records. A failure is only logged,
// at debug level: the daemon then learns the state from the next events.
void requestInitialState(int controlFd);

}  // namespace uafd
