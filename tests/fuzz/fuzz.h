// SPDX-License-Identifier: Apache-2.0
// What every fuzz target is made of: the input read from front to back, the way to fail, and the
// options that belong to the target. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace uafd::fuzz {

// The longest input, in bytes; each target defines it with its input's format in mind.
extern const int kMaxInputBytes;

// Ends the run when the condition does not hold; the fuzzer keeps the input.
void require(bool condition, const char* what);
// The same for two texts, which are shown.
void requireSame(const std::string& expected, const std::string& actual, const char* what);

// The input, consumed from its front; behind its end come zeros.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : next(data), end(data + size) {}

    bool empty() const { return next == end; }
    uint8_t byte() { return next == end ? uint8_t{0} : *next++; }
    uint32_t number(int bytes);
    // Up to `n` bytes: fewer where the input ends.
    std::string text(size_t n);
    // One byte: a small number mostly; beyond those the numbers that break limits, `limit` and its
    // neighbours among them.
    int32_t size(int32_t limit);

  private:
    const uint8_t* next;
    const uint8_t* end;
};

}  // namespace uafd::fuzz
