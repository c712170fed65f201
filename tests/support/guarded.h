// SPDX-License-Identifier: Apache-2.0
// An array between two guard zones: shows writes before its first and behind its last element, in
// every build. Heap memory of exactly its own (a std::vector) shows reads too, under ASan.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

template <typename T>
class Guarded {
  public:
    explicit Guarded(size_t size, T fill = T{}) : memory(size + 2 * ZONE, GUARD) {
        std::fill(begin(), end(), fill);
    }

    T* data() { return memory.data() + ZONE; }
    const T* data() const { return memory.data() + ZONE; }
    T* begin() { return data(); }
    T* end() { return data() + size(); }
    size_t size() const { return memory.size() - 2 * ZONE; }
    T operator[](size_t i) const { return data()[i]; }
    std::vector<T> toVector() const { return {data(), data() + size()}; }

    bool intact() const {
        const auto isGuard = [](T element) { return element == GUARD; };
        return std::all_of(memory.begin(), memory.begin() + ZONE, isGuard) &&
               std::all_of(memory.end() - ZONE, memory.end(), isGuard);
    }

  private:
    static constexpr ptrdiff_t ZONE = 64;
    static constexpr T GUARD = static_cast<T>(0x5A5A);

    std::vector<T> memory;
};
