// SPDX-License-Identifier: Apache-2.0
// What the main job needs of the board that it runs on, beside what every board has: one with real
// USB, or the stand-in. One thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "board/demo/report.h"

namespace board {

class DemoHost {
  public:
    virtual ~DemoHost() = default;

    virtual DaemonBoard& board() = 0;
    // A stream runs: what the host shows of it is noted.
    virtual void lookAt(const Direction& direction) = 0;
    // Rows for the table; what the host shows is left in /out.
    virtual std::vector<Row> report() = 0;
    // What went wrong on the bus, or an empty text.
    virtual std::string findFault() = 0;

    // How long a stream is on before the daemon is told.
    virtual int settleMs() = 0;
    // What the app is told when the cable is plugged in, behind "USB configured = 1".
    virtual std::vector<Message> toldAtPlug() = 0;
};

// Their logs are /out/daemon.log.
std::unique_ptr<DemoHost> makeWireDemo(DaemonStarter starter);
std::unique_ptr<DemoHost> makeStandInDemo(DaemonStarter starter);

}  // namespace board
