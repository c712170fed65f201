// SPDX-License-Identifier: Apache-2.0
// The fixture of the source channel's buffer loop: a started channel, reads and a frame buffer as
// the test wants them, and what reached the frame buffer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "channel/uaf_src.h"
#include "tests/support/source_bench.h"

namespace uafd {

class SourceFifoCase : public source_bench::Test {
  protected:
    void SetUp() override {
        source_bench::Test::SetUp();
        fake_ssrs::hooks().SSRS_Write = [this](SSRS_Ctx*, const int16_t* data, int32_t n) {
            journal.push_back("write");
            blocks.emplace_back(data, data + n);
            return writeResult;
        };
        fake_ssrs::hooks().SSRS_StatsGet = [this](const SSRS_Ctx*, SSRS_Stats* copy) {
            journal.push_back("stats");
            *copy = stats;
            return 0;
        };
        start();
    }

    // `passes` passes that reach the unlock.
    void runBlocks(int passes) {
        stopAfterBlocks(passes);
        runBufferThread();
    }

    // Reads give these results, one after the other, and then whole blocks.
    void readResults(std::vector<int> results) {
        fifo.onRead = [results, next = size_t{0}](int16_t*, size_t size) mutable {
            return next < results.size() ? results[next++] : static_cast<ssize_t>(size);
        };
    }

    // The loop ends in its `yields`-th failed pass.
    void stopAtYield(int yields) {
        fake_sys::hooks().sched_yield = [this, left = yields]() mutable {
            journal.push_back("yield");
            if (--left == 0) {
                source->uafStop();
            }
            return 0;
        };
    }

    int linesWith(const std::string& part) const {
        const std::vector<fake_log::Line> lines = source_bench::ownLines();
        return static_cast<int>(std::count_if(
            lines.begin(), lines.end(),
            [&](const fake_log::Line& line) { return line.text.find(part) != std::string::npos; }));
    }

    std::vector<std::vector<int16_t>> blocks;
    int32_t writeResult = 0;
    SSRS_Stats stats{};
};

}  // namespace uafd
