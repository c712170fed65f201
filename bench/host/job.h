// SPDX-License-Identifier: Apache-2.0
// The two jobs that are measured. A frame: blocks of 480 mono 16-bit samples in, frames of 240 out,
// a sample more or fewer taken for a frame where latency is corrected. A block: 480 samples into a
// queue and twice 240 out of it.
#pragma once

#include <array>
#include <cstdint>

namespace bench {

constexpr int32_t kBlock = 480;    // samples of a write
constexpr int32_t kFrame = 240;    // samples of a read
constexpr int32_t kStorage = 960;  // samples that a buffer holds at most
constexpr int32_t kRate = 48000;   // samples a second

enum class Correction {
    kPlain,      // a frame is the 240 samples that it takes
    kStretched,  // a frame is made of 239 samples
    kSqueezed    // a frame is made of 241 samples
};

inline constexpr std::array kCorrections = {Correction::kPlain, Correction::kStretched,
                                            Correction::kSqueezed};

inline const char* nameOf(Correction correction) {
    constexpr const char* names[] = {"plain", "stretched", "squeezed"};
    return names[static_cast<int32_t>(correction)];
}

// Samples that a frame takes.
constexpr int32_t takenBy(Correction correction) {
    constexpr int32_t taken[] = {kFrame, kFrame - 1, kFrame + 1};
    return taken[static_cast<int32_t>(correction)];
}

// Takes from the compiler what it knows of memory: what was written is needed, what is read next is
// unknown. benchmark::DoNotOptimize of an lvalue, which is meant for that, is miscompiled by
// GCC 12.
inline void barrier(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

// A number that the compiler does not know: a copy of that many bytes calls the C library's and
// does not become an inline string instruction, which is several times slower.
template <class T>
T unknown(T value) {
    asm volatile("" : "+r"(value));
    return value;
}

// Noise of full scale, always the same.
inline std::array<int16_t, kBlock> noiseBlock() {
    std::array<int16_t, kBlock> block{};
    uint32_t state = 1;
    for (int16_t& sample : block) {
        state = state * 1664525 + 1013904223;
        sample = static_cast<int16_t>(state >> 16);
    }
    return block;
}

}  // namespace bench
