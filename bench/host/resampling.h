// SPDX-License-Identifier: Apache-2.0
// A resampling library in the frame buffer's job: the waiting samples in one piece, as the
// libraries need them, followed by the library's resampler.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bench/host/job.h"

namespace bench {

// How many samples one call of a resampler took and made.
struct Progress {
    int32_t taken;
    int32_t made;
};

// Engine(Correction) has process(in, n, out, room), which returns its Progress, and kStored: how
// many samples it stores at the start, so that it never runs short later; 0 if it takes only what
// it needs for its output.
template <class Engine>
class Resampling {
  public:
    explicit Resampling(Correction correction)
        : engine(correction), taken(takenBy(correction)), block(unknown(kBlock)) {
        constexpr int16_t silence[kFrame] = {};
        for (int32_t stored = 0; stored < Engine::kStored; stored += kFrame) {
            engine.process(silence, kFrame, nullptr, 0);
        }
    }

    int32_t held() const { return end - start; }

    void write(const int16_t* from) {
        memmove(storage, storage + start, static_cast<size_t>(held()) * sizeof(int16_t));
        end -= start;
        start = 0;
        memcpy(storage + end, from, static_cast<size_t>(block) * sizeof(int16_t));
        end += block;
    }

    void read(int16_t* frame) {
        int32_t left = Engine::kStored > 0 ? taken : kBlock;
        int32_t made = 0;
        while (made < kFrame) {
            const Progress p = engine.process(storage + start, std::min(held(), left), frame + made,
                                              kFrame - made);
            start += p.taken;
            left -= p.taken;
            made += p.made;
            if (p.taken == 0 && p.made == 0) {
                std::fill(frame + made, frame + kFrame, int16_t{0});
                return;
            }
        }
    }

  private:
    Engine engine;
    const int32_t taken;
    const int32_t block;
    int32_t start = 0;
    int32_t end = 0;
    alignas(64) int16_t storage[kStorage]{};
};

}  // namespace bench
