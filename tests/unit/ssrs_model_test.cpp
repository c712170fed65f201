// SPDX-License-Identifier: Apache-2.0
// The frame stream buffer compared with its simple model: random calls of every kind, valid or not,
// must give the same codes, frames and statistics.
#include "tests/support/ssrs_model.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "buffer/ssrs.h"
#include "tests/unit/guarded.h"

namespace uafd {
namespace {

using Samples = SsrsModel::Samples;

class SsrsAgainstModel {
  public:
    explicit SsrsAgainstModel(uint32_t seed) : random(seed), ctx(makeContext()) {
        pick(0, 9) == 0 ? void() : attach();
    }

    void step() {
        switch (pick(0, 199)) {
            case 0:
                attach();
                break;
            case 1:
            case 2:
                setAnyRange();
                break;
            case 3:
            case 4:
                setFrameSize(pick(0, 2) == 0 ? pick(-1, 961) : pick(1, 30));
                break;
            case 5:
                refuse();
                break;
            case 6:
                ctx->fixedRate = pick(0, 1);
                model.fixedRate = ctx->fixedRate != 0;
                break;
            case 7:
                ctx->testTone = pick(0, 1);
                model.testTone = ctx->testTone != 0;
                break;
            default:
                pick(0, 1) == 0 ? write(blockLength()) : read();
        }
        compare();
    }

    const SSRS_Stats& counts() const { return model.stats; }

  private:
    static constexpr size_t kToneRoom = 15;

    SSRS_Ctx* makeContext() {
        memory.resize(SSRS_GetContextSize() / sizeof(uint64_t), 0xA5A5A5A5A5A5A5A5u);
        auto* const made = reinterpret_cast<SSRS_Ctx*>(memory.data());
        EXPECT_EQ(0, SSRS_InitContext(made));
        return made;
    }

    int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }
    int longest() const { return static_cast<int>(model.length); }

    // Mostly near the frame's size, sometimes anything.
    int blockLength() {
        return pick(0, 9) == 0 ? pick(-1, longest() + 1)
                               : std::min(pick(0, 2 * model.frameSize + 1), longest());
    }

    // A range that leaves room for frames; otherwise only extremes would be tested.
    void attach() {
        const int len = pick(0, 9) == 0 ? pick(-1, 20) : pick(1, 3000);
        storages.emplace_back(static_cast<size_t>(std::max(len, 0)), 7);
        ASSERT_EQ(model.setQBuff(true, len), SSRS_SetQBuff(ctx, storages.back().data(), len));
        ASSERT_EQ(Samples(storages.back().size()), storages.back().toVector());
        setFrameSize(std::min(pick(1, 960), pick(1, 960)));
        const int low = pick(0, longest() / 2);
        setRange(low, pick(longest() / 3, longest()));
    }

    void setAnyRange() {
        const int low = pick(-1, longest() + 1);
        setRange(low, pick(-1, longest() + 1));
    }

    void setRange(int low, int high) {
        ASSERT_EQ(model.setQDepth(low, high), SSRS_SetQDepth(ctx, low, high));
    }

    void setFrameSize(int n) { ASSERT_EQ(model.setFrameSize(n), SSRS_SetFrameSize(ctx, n)); }

    void write(int n) {
        Samples block(static_cast<size_t>(std::max(n, 1)));
        const bool extremes = pick(0, 3) == 0;
        std::generate(block.begin(), block.end(), [&] {
            return static_cast<int16_t>(extremes ? pick(0, 1) * 65535 - 32768
                                                 : pick(INT16_MIN, INT16_MAX));
        });
        ASSERT_EQ(model.write(block.data(), n), SSRS_Write(ctx, block.data(), n));
    }

    void read() {
        const auto frame = static_cast<size_t>(model.frameSize);
        Guarded<int16_t> out(frame + (model.testTone ? kToneRoom : 0), 0x1234);
        ASSERT_EQ(0, SSRS_Read(ctx, out.data()));
        ASSERT_TRUE(out.intact());
        ASSERT_EQ(model.read(), Samples(out.begin(), out.begin() + model.frameSize));
    }

    void refuse() {
        ASSERT_EQ(model.setQBuff(false, 0), SSRS_SetQBuff(ctx, nullptr, pick(-1, 1)));
        ASSERT_EQ(model.write(nullptr, 1), SSRS_Write(ctx, nullptr, pick(-1, 1)));
        ASSERT_EQ(model.refuseRead(), SSRS_Read(ctx, nullptr));
    }

    void compare() {
        SSRS_Stats stats;
        ASSERT_EQ(0, SSRS_StatsGet(ctx, &stats));
        const SSRS_Stats expected = model.statistics();
        ASSERT_EQ(0, memcmp(&expected, &stats, sizeof(stats)));
        ASSERT_EQ(model.held.size() * 2, static_cast<size_t>(ctx->queue->depth));
        ASSERT_EQ(model.pending, ctx->primePending);
        ASSERT_EQ(model.average, ctx->avgDepthX10k);
        ASSERT_TRUE(storages.empty() || storages.back().intact());
    }

    std::mt19937 random;
    std::vector<uint64_t> memory;
    SSRS_Ctx* ctx;
    SsrsModel model;
    std::list<Guarded<int16_t>> storages;  // kept: after an odd one its predecessor is in use
};

// Adds up what happened in all lives, so that a test can check that every case occurred.
void add(SSRS_Stats& total, const SSRS_Stats& life) {
    total.wrErrors += life.wrErrors;
    total.rdErrors += life.rdErrors;
    total.rdCalls += life.rdCalls;
    total.compressCnt += life.compressCnt;
    total.stretchCnt += std::max(life.stretchCnt, 0);
    total.overruns += life.overruns;
    total.underruns += life.underruns;
}

TEST(SsrsModelTest, RandomUseEqualsThePlainModel) {
    SSRS_Stats total{};
    for (uint32_t seed = 1; seed <= 300; seed++) {
        SsrsAgainstModel pair(seed);
        for (int step = 0; step < 400; step++) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
            ASSERT_NO_FATAL_FAILURE(pair.step());
        }
        add(total, pair.counts());
    }
    EXPECT_GT(total.rdCalls, 20'000u);
    EXPECT_GT(total.compressCnt, 1'000u);
    EXPECT_GT(total.stretchCnt, 1'000);
    EXPECT_GT(total.overruns, 1'000u);
    EXPECT_GT(total.underruns, 1'000u);
    EXPECT_GT(total.wrErrors, 100u);
    EXPECT_GT(total.rdErrors, 100u);
}

}  // namespace
}  // namespace uafd
