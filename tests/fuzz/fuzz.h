// SPDX-License-Identifier: Apache-2.0
// The parts of every fuzz target: what it defines, the input, read from front to back, and the way
// to fail. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace uafd::fuzz {

// Ends the run when the condition does not hold; the fuzzer saves the input.
void require(bool condition, const char* what);
// Ends the run when the texts differ, and shows both.
void requireSame(const std::string& expected, const std::string& actual, const char* what);

// The text with a word in place of each byte that is the word's number, so that inputs easily
// contain words.
template <size_t count>
std::string expand(const std::string& text, const std::string (&words)[count]) {
    std::string bytes;
    for (const char c : text) {
        const auto index = static_cast<unsigned char>(c);
        bytes += index < count ? words[index] : std::string(1, c);
    }
    return bytes;
}

bool beginsWith(const std::string& text, const std::string& prefix);

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

// Each target defines these two: the longest input, in bytes, to suit its input's format, and what
// is done with one.
extern const int kMaxInputBytes;
void execute(Input& input);

}  // namespace uafd::fuzz
