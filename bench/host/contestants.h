// SPDX-License-Identifier: Apache-2.0
// What is compared: the daemon's frame buffer and queue, the floors, and libraries that could
// replace them. A contestant is a class with the calls of its kind; the templates here turn it into
// a job.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/host/job.h"

namespace bench {

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
extern const char* const kOurs;
extern const char* const kBareCopies;
extern const char* const kSimd;
extern const char* const kJack;

// The daemon's own, then the floors.
std::vector<FrameContestant> ownFrameBuffers();
std::vector<QueueContestant> ownQueues();
// The libraries.
std::vector<FrameContestant> integerResamplers();
std::vector<FrameContestant> floatResamplers();
std::vector<QueueContestant> libraryQueues();
// Both together.
std::vector<FrameContestant> frameContestants();
std::vector<QueueContestant> queueContestants();

}  // namespace bench
