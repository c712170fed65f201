// SPDX-License-Identifier: Apache-2.0
// The smallest channel: the base with a stream that only notes what the base asks of it. What the
// base keeps for derived channels and for itself lies open to tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "channel/uaf_ch.h"

namespace uafd {

class TestChannel : public UafCh {
  public:
    static constexpr int kMsgType = 7;

    explicit TestChannel(std::vector<std::string>& journalOfTest)
        : UafCh(kMsgType), journal(journalOfTest) {}

    void uafLoop() override {
        journal.push_back("loop");
        onLoop();
    }
    int uafStart() override {
        journal.push_back("start");
        onStart();
        return startResult;
    }
    int uafStop() override {
        journal.push_back("stop");
        onStop();
        return 0;
    }

    int startResult = 0;
    std::function<void()> onStart = [] {};
    std::function<void()> onStop = [] {};
    std::function<void()> onLoop = [] {};

    using UafCh::fifo;
    using UafCh::fifoName;
    using UafCh::intfMutex;
    using UafCh::joinPending;
    using UafCh::msgType;
    using UafCh::pcmHandle;
    using UafCh::pcmName;
    using UafCh::pcmStallCnt;
    using UafCh::pcmStatus;
    using UafCh::state;
    using UafCh::stopDelayCnt;
    using UafCh::threadId;

    using UafCh::holdDevNames;
    using UafCh::missedWait;
    using UafCh::pauseForTimeout;
    using UafCh::recoverPcm;
    using UafCh::releaseDevNames;
    using UafCh::requestStop;

  private:
    std::vector<std::string>& journal;
};

}  // namespace uafd
