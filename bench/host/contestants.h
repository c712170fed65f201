// SPDX-License-Identifier: Apache-2.0
// What is compared: the daemon's frame buffer and queue, the floors, and libraries that could
// replace them. A contestant is a class with the calls of its kind; the templates here turn it into
// one of the two jobs that are measured. A frame: blocks of 480 mono 16-bit samples in, frames of
// 240 out; a frame takes a sample more or fewer where latency is corrected. A block: 480 samples
// into a queue and twice 240 out of it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

class Job {
  public:
    Job() = default;
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    virtual ~Job() = default;

    // Processes this many frames of noise, or this many blocks through a queue.
    virtual void run(int32_t times) = 0;
};

// Returns 480 samples.
using Source = std::function<const int16_t*()>;

class FrameJob : public Job {
  public:
    // Makes one frame of what the source returns.
    virtual void play(const Source& source, int16_t* frame) = 0;
};

// Buffer must have Buffer(Correction), held() in samples, write(block of 480) and read(frame of
// 240).
template <class Buffer>
class FrameJobOf : public FrameJob {
  public:
    explicit FrameJobOf(Correction correction) : buffer(correction) {}

    void run(int32_t times) override {
        const auto noise = [this] { return block.data(); };
        for (int32_t i = 0; i < times; i++) {
            next(noise, output.data());
            barrier(output.data());
        }
    }

    void play(const Source& source, int16_t* frame) override { next(source, frame); }

  private:
    // Writes a block whenever the buffer holds fewer samples than the largest frame takes.
    template <class AnySource>
    void next(const AnySource& source, int16_t* frame) {
        if (buffer.held() <= kFrame) {
            buffer.write(source());
        }
        buffer.read(frame);
    }

    Buffer buffer;
    alignas(64) const std::array<int16_t, kBlock> block = noiseBlock();
    alignas(64) std::array<int16_t, kFrame> output{};
};

// Queue must have put(samples, n) and take(samples, n).
template <class Queue>
class QueueJobOf : public Job {
  public:
    void run(int32_t times) override {
        const int32_t in = unknown(kBlock);
        const int32_t out = unknown(kFrame);
        for (int32_t i = 0; i < times; i++) {
            queue.put(block.data(), in);
            for (int32_t half = 0; half < kBlock / kFrame; half++) {
                queue.take(output.data(), out);
                barrier(output.data());
            }
        }
    }

  private:
    Queue queue;
    alignas(64) const std::array<int16_t, kBlock> block = noiseBlock();
    alignas(64) std::array<int16_t, kFrame> output{};
};

struct FrameContestant {
    std::string name;
    std::function<std::unique_ptr<FrameJob>(Correction)> make;
};

struct QueueContestant {
    std::string name;
    std::function<std::unique_ptr<Job>()> make;
};

template <class Buffer>
FrameContestant frameContestant(std::string name) {
    return {std::move(name),
            [](Correction correction) { return std::make_unique<FrameJobOf<Buffer>>(correction); }};
}

template <class Queue>
QueueContestant queueContestant(std::string name) {
    return {std::move(name), [] { return std::make_unique<QueueJobOf<Queue>>(); }};
}

// The names by which a report finds the contestants with goals.
inline constexpr char kOurs[] = "uafd";
inline constexpr char kBareCopies[] = "bare copies";
inline constexpr char kSimd[] = "hand-written SIMD";
inline constexpr char kJack[] = "JACK ring buffer";

// The daemon's own, then the floors.
std::vector<FrameContestant> ownFrameBuffers();
std::vector<QueueContestant> ownQueues();
// The same, then the libraries.
std::vector<FrameContestant> frameContestants();
std::vector<QueueContestant> queueContestants();

}  // namespace bench
