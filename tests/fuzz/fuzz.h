// SPDX-License-Identifier: Apache-2.0
// The parts of every fuzz target: the input, read from front to back, the way to fail, and the
// target's own options. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace uafd::fuzz {

// The longest input, in bytes; each target defines it to suit its input's format.
extern const int kMaxInputBytes;

// Ends the run when the condition does not hold; the fuzzer saves the input.
void require(bool condition, const char* what);
// Ends the run when the texts differ, and shows both.
void requireSame(const std::string& expected, const std::string& actual, const char* what);

// The input, consumed from its front; after its end come zeros.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : next(data), end(data + size) {}

    bool empty() const { return next == end; }
    uint8_t byte() { return next == end ? uint8_t{0} : *next++; }
    uint32_t number(int bytes);
    // Up to `n` bytes; fewer at the end of the input.
    std::string text(size_t n);
    // Takes one byte. Mostly a small number; otherwise a number that tests limits, among them
    // `limit` and its neighbours.
    int32_t size(int32_t limit);

  private:
    const uint8_t* next;
    const uint8_t* end;
};

}  // namespace uafd::fuzz
