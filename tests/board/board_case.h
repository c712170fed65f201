// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run the whole board: each case has a board and a daemon of its own. The
// daemon's log is named after the case.
#pragma once

#include <gtest/gtest.h>

#include "board/kit/board.h"
#include "tests/board/case_name.h"

namespace uafd {

class BoardCase : public testing::Test, public board::Board {
  protected:
    BoardCase() : Board(caseName()) {}

    // Returns once both streams run.
    void bothOn() {
        host.command("speaker on");
        host.command("mic on");
        ASSERT_TRUE(hasThreads(board::kStreamingThreads));
    }
};

}  // namespace uafd
