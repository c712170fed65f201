// SPDX-License-Identifier: Apache-2.0
// The main job's board with the simulated gadget and host.
#include <utility>

#include "board/demo/demo_host.h"
#include "board/kit/board.h"

namespace board {
namespace {

class StandInDemo : public DemoHost {
  public:
    explicit StandInDemo(DaemonStarter starter) : standIn("daemon", std::move(starter)) {}

    DaemonBoard& board() override { return standIn; }
    void lookAt(const Direction& /*direction*/) override {}
    std::vector<Row> report() override { return {}; }
    std::string findFault() override { return ""; }
    int settleMs() override { return 0; }
    std::vector<Message> toldAtPlug() override { return {}; }

  private:
    Board standIn;
};

}  // namespace

std::unique_ptr<DemoHost> makeStandInDemo(DaemonStarter starter) {
    return std::make_unique<StandInDemo>(std::move(starter));
}

}  // namespace board
