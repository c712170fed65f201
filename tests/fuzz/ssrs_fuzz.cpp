// SPDX-License-Identifier: Apache-2.0
// The frame stream buffer beside its model, in any sequence of calls: null pointers, frames,
// ranges, storage and blocks of every size, a context initialised again in use, and the two
// switches that only a debugger sets. Codes, frames, every statistic and what the queue holds must
// be the model's.
#include <algorithm>
#include <cstring>
#include <list>
#include <vector>

#include "buffer/ssrs.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/ssrs_model.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 48;

namespace {

using fuzz::require;
using Samples = SsrsModel::Samples;

constexpr int32_t kStorageMax = 1024;
constexpr int32_t kToneRoom = 15;  // the room that a frame needs after its end while the tone is on

class SsrsRun {
  public:
    explicit SsrsRun(fuzz::Input& input)
        : input(input), memory(SSRS_GetContextSize() / sizeof(uint64_t)) {
        makeContext();
        setFrameSize(16);  // the initial size costs time and shows nothing more
    }

    void step() {
        const uint8_t call = input.byte();
        switch (call % 16) {
            case 0:
                refuseNullContext();
                break;
            case 1:
                call < 16 ? makeContext() : refuseNullData();
                break;
            case 2:
                setSwitches(call);
                break;
            case 3:
                attach();
                break;
            case 4:
                setRange();
                break;
            case 5:
                setFrameSize(input.size(SSRS_FRAME_SIZE_MAX));
                break;
            default:
                call % 2 == 0 ? write(call) : read();
        }
        compare();
    }

  private:
    void makeContext() {
        std::fill(memory.begin(), memory.end(), 0xA5A5A5A5A5A5A5A5);
        ctx = reinterpret_cast<SSRS_Ctx*>(memory.data());
        require(SSRS_InitContext(ctx) == 0, "a context can be made");
        model = SsrsModel();
    }

    int32_t length() { return input.size(static_cast<int32_t>(model.length)); }

    // A refused call never follows its pointers: these lead nowhere.
    void refuseNullContext() {
        const int32_t n = length();
        auto* const nowhere = n % 2 == 0 ? nullptr : reinterpret_cast<int16_t*>(8);
        require(SSRS_InitContext(nullptr) == 1, "InitContext refuses no context");
        require(SSRS_SetFrameSize(nullptr, n) == 1, "SetFrameSize refuses no context");
        require(SSRS_SetQBuff(nullptr, nowhere, n) == 1, "SetQBuff refuses no context");
        require(SSRS_SetQDepth(nullptr, n, n) == 1, "SetQDepth refuses no context");
        require(SSRS_Write(nullptr, nowhere, n) == 1, "Write refuses no context");
        require(SSRS_Read(nullptr, nowhere) == 1, "Read refuses no context");
        require(SSRS_StatsGet(nullptr, nullptr) == 1, "StatsGet refuses no context");
    }

    void refuseNullData() {
        const int32_t n = length();
        require(SSRS_SetQBuff(ctx, nullptr, n) == model.setQBuff(false, n),
                "SetQBuff refuses no storage");
        require(SSRS_Write(ctx, nullptr, n) == model.write(nullptr, n), "Write refuses no data");
        require(SSRS_Read(ctx, nullptr) == model.refuseRead(), "Read refuses no output");
        require(SSRS_StatsGet(ctx, nullptr) == 2, "StatsGet refuses no record");
    }

    void setSwitches(uint8_t call) {
        ctx->fixedRate = call >> 4 & 1;
        ctx->testTone = call >> 5 & 1;
        model.fixedRate = ctx->fixedRate != 0;
        model.testTone = ctx->testTone != 0;
    }

    void setFrameSize(int32_t n) {
        require(SSRS_SetFrameSize(ctx, n) == model.setFrameSize(n),
                "SetFrameSize returns the model's code");
    }

    void attach() {
        const int32_t len = input.size(kStorageMax);
        if (len > kStorageMax) {
            return;  // it would be accepted, and there is no such memory
        }
        storages.emplace_back(static_cast<size_t>(std::max(len, 1)), int16_t{7});
        require(SSRS_SetQBuff(ctx, storages.back().data(), len) == model.setQBuff(true, len),
                "SetQBuff returns the model's code");
        const Samples expected(storages.back().size(), len > 0 ? int16_t{0} : int16_t{7});
        require(storages.back() == expected, "SetQBuff clears what it takes");
    }

    void setRange() {
        const int32_t low = length();
        const int32_t high = length();
        require(SSRS_SetQDepth(ctx, low, high) == model.setQDepth(low, high),
                "SetQDepth returns the model's code");
    }

    // A block of samples that alternately differ much or little.
    void write(uint8_t call) {
        const int32_t n = length();
        Samples block(static_cast<size_t>(std::clamp(n, 1, kStorageMax)));
        for (int16_t& sample : block) {
            filling += call < 128 ? 0x9E3779B9u : 0x00010000u;
            sample = static_cast<int16_t>(filling >> 16);
        }
        require(SSRS_Write(ctx, block.data(), n) == model.write(block.data(), n),
                "Write returns the model's code");
    }

    void read() {
        Samples out(static_cast<size_t>(model.frameSize + (model.testTone ? kToneRoom : 0)));
        require(SSRS_Read(ctx, out.data()) == 0, "Read succeeds");
        out.resize(static_cast<size_t>(model.frameSize));
        require(out == model.read(), "Read gives the model's frame");
    }

    void compare() {
        SSRS_Stats stats;
        memset(&stats, 0xA5, sizeof stats);
        require(SSRS_StatsGet(ctx, &stats) == 0, "StatsGet succeeds");
        const SSRS_Stats expected = model.statistics();
        require(memcmp(&expected, &stats, sizeof stats) == 0, "the statistics are the model's");
        require(static_cast<size_t>(ctx->queue->depth) == model.held.size() * sizeof(int16_t),
                "the queue holds as much as the model");
        require(ctx->primePending == model.pending, "padding is due as in the model");
        require(ctx->avgDepthX10k == model.average, "the average is the model's");
        require(ctx->qDepthLow == model.low && ctx->qDepthHigh == model.high,
                "the range is the model's");
    }

    fuzz::Input& input;
    std::vector<uint64_t> memory;
    SSRS_Ctx* ctx = nullptr;
    SsrsModel model;
    std::list<Samples> storages;  // all of them: one of an odd size leaves the one before in use
    uint32_t filling = 0;
};

}  // namespace

void fuzz::execute(Input& input) {
    SsrsRun run(input);
    while (!input.empty()) {
        run.step();
    }
}

}  // namespace uafd
