// The frame stream buffer beside a plain model of it: a std::deque of samples, 64-bit arithmetic
// and the interpolation formula as one would write it down. Random calls of every kind, valid or
// not, must give the same codes, the same frames and the same statistics.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>
#include <list>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "buffer/ssrs.h"
#include "tests/support/guarded.h"

namespace {

using Samples = std::vector<int16_t>;

class Model {
  public:
    int setFrameSize(int n) {
        if (n < 1 || n > 960) {
            return 3;
        }
        frameSize = n;
        return 0;
    }

    int setQBuff(bool haveStorage, int64_t len) {
        if (!haveStorage) {
            return 2;
        }
        if (len < 1) {
            return 3;
        }
        if (len % 2 == 0) {
            capacity = len;
        }
        attached = true;
        length = len;
        held.clear();
        return 0;
    }

    int setQDepth(int64_t newLow, int64_t newHigh) {
        if (newLow < 0 || newHigh < 0 || newLow > newHigh || newLow > length || newHigh > length) {
            return 3;
        }
        if (!attached) {
            return 4;
        }
        held.clear();
        low = newLow;
        high = newHigh;
        pending = 1;
        average = 0;
        return 0;
    }

    int write(const int16_t* data, int64_t n) {
        if (data == nullptr) {
            stats.wrErrors++;
            return 2;
        }
        if (n < 0 || n > length) {
            stats.wrErrors++;
            return 3;
        }
        if (n == 0) {
            return 0;
        }
        stats.wrSamples += static_cast<uint32_t>(n);
        stats.wrCalls++;
        if (pending != 0) {
            pending = 0;
            for (int64_t pad = (low + high) / 2 - n; pad > 0 && size() < capacity; pad--) {
                held.push_back(0);
            }
        }
        if (n > capacity) {
            return 0;
        }
        if (size() + n > capacity) {
            stats.overruns++;
            return 6;
        }
        held.insert(held.end(), data, data + n);
        return 0;
    }

    Samples read() {
        const int64_t depth = size();
        average += (depth * 10000 - average) / 100;
        const int64_t count = frameSize + correction(depth);
        if (depth == 0) {
            stats.stretchCnt--;
            pending++;
        } else {
            stats.rdCalls++;
            stats.rdSamples += static_cast<uint32_t>(std::min(depth, count));
        }
        if (depth > 0 && depth < count) {
            stats.underruns++;
            pending++;
        }
        return overlaid(frameOf(taken(count)));
    }

    SSRS_Stats statistics() const {
        SSRS_Stats copy = stats;
        copy.avgDepth = static_cast<int32_t>(average / 10000);
        return copy;
    }

    int64_t length = 0;    // of the storage last given
    int64_t capacity = 0;  // of the storage in use
    int64_t pending = 0;
    int64_t average = 0;
    int frameSize = 480;
    bool fixedRate = false;
    bool testTone = false;
    SSRS_Stats stats{};
    std::deque<int16_t> held;

  private:
    int64_t size() const { return static_cast<int64_t>(held.size()); }

    int correction(int64_t depth) {
        if (fixedRate) {
            return 0;
        }
        stats.compressCnt += depth > high ? 1 : 0;
        stats.stretchCnt += depth < low ? 1 : 0;
        return depth > high ? 1 : (depth < low ? -1 : 0);
    }

    // Nothing at all when the queue refuses; else `count` samples, silence where there are none.
    Samples taken(int64_t count) {
        Samples samples;
        while (count <= capacity && static_cast<int64_t>(samples.size()) < count) {
            samples.push_back(held.empty() ? int16_t{0} : held.front());
            held.empty() ? void() : held.pop_front();
        }
        return samples;
    }

    Samples frameOf(const Samples& in) const {
        Samples out(static_cast<size_t>(frameSize));
        if (in.empty() || in.size() == out.size()) {
            return in.empty() ? out : in;
        }
        out.front() = in.front();
        out.back() = in.back();
        if (frameSize < 3) {
            return out;
        }
        const float ratio = static_cast<float>(in.size() - 1) / static_cast<float>(frameSize - 1);
        const auto step = static_cast<int64_t>(std::floor(double{ratio} * 65536 + 0.5));
        for (int64_t i = 1; i < frameSize - 1; i++) {
            const int64_t a = in.at(static_cast<size_t>(i * step / 65536));
            const int64_t b = in.at(static_cast<size_t>(i * step / 65536) + 1);
            const auto rise = static_cast<double>((b - a) * (i * step % 65536) + 32768) / 65536;
            out[static_cast<size_t>(i)] = static_cast<int16_t>(a + std::lround(std::floor(rise)));
        }
        return out;
    }

    Samples overlaid(Samples frame) const {
        for (size_t i = 0; testTone && i < frame.size(); i++) {
            const double angle = 2 * M_PI * static_cast<double>(i % 32) / 32;
            frame[i] =
                i % 32 < 16 ? static_cast<int16_t>(std::lround(1000 * std::cos(angle))) : frame[i];
        }
        return frame;
    }

    int64_t low = 0;
    int64_t high = 0;
    bool attached = false;
};

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
    static constexpr size_t TONE_ROOM = 15;

    SSRS_Ctx* makeContext() {
        memory.resize(SSRS_GetContextSize() / sizeof(uint64_t), 0xA5A5A5A5A5A5A5A5u);
        auto* const made = reinterpret_cast<SSRS_Ctx*>(memory.data());
        EXPECT_EQ(0, SSRS_InitContext(made));
        return made;
    }

    int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); }
    int longest() const { return static_cast<int>(model.length); }

    // Around the frame mostly, anything at times.
    int blockLength() {
        return pick(0, 9) == 0 ? pick(-1, longest() + 1)
                               : std::min(pick(0, 2 * model.frameSize + 1), longest());
    }

    // A range with room for frames, else extremes would be all there is.
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
        Guarded<int16_t> out(frame + (model.testTone ? TONE_ROOM : 0), 0x1234);
        ASSERT_EQ(0, SSRS_Read(ctx, out.data()));
        ASSERT_TRUE(out.intact());
        ASSERT_EQ(model.read(), Samples(out.begin(), out.begin() + model.frameSize));
    }

    void refuse() {
        ASSERT_EQ(model.setQBuff(false, 0), SSRS_SetQBuff(ctx, nullptr, pick(-1, 1)));
        ASSERT_EQ(model.write(nullptr, 1), SSRS_Write(ctx, nullptr, pick(-1, 1)));
        ASSERT_EQ(2, SSRS_Read(ctx, nullptr));
        model.stats.rdErrors++;
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
    Model model;
    std::list<Guarded<int16_t>> storages;  // all of them: an odd one leaves its predecessor in use
};

// Adds up what the lives went through, for a test that its calls reach every case.
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
