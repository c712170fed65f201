// SPDX-License-Identifier: Apache-2.0
// The two jobs that are measured. A frame: blocks of 480 mono 16-bit samples in, frames of 240 out;
// a frame takes a sample more or fewer where latency is corrected. A block: 480 samples into a
// queue and twice 240 out of it.
#pragma once

#include <array>
#include <cstdint>

namespace bench {

constexpr int32_t kBlock = 480;    // samples per write
constexpr int32_t kFrame = 240;    // samples per read
constexpr int32_t kStorage = 960;  // the most samples that a buffer holds
constexpr int32_t kRate = 48000;   // samples per second

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

// The number of samples that a frame takes.
constexpr int32_t takenBy(Correction correction) {
    constexpr int32_t taken[] = {kFrame, kFrame - 1, kFrame + 1};
    return taken[static_cast<int32_t>(correction)];
}

// Makes the compiler assume that all written memory is needed and all memory read later is unknown.
// benchmark::DoNotOptimize of an lvalue is meant for this, but GCC 12 miscompiles it.
inline void barrier(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

// Hides a number from the compiler: a copy of that many bytes then calls the C library instead of
// using an inline string instruction, which is several times slower.
template <class T>
T unknown(T value) {
    asm volatile("" : "+r"(value));
    return value;
}

// Noise of full scale, the same in every run.
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
