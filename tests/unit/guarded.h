// SPDX-License-Identifier: Apache-2.0
// An array between two guard zones: in every build it detects writes before its first and after its
// last element. Memory that a std::vector allocates in the exact size shows reads as well, under
// ASan.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace uafd {

template <typename T>
class Guarded {
  public:
    explicit Guarded(size_t size, T fill = T{}) : memory(size + 2 * kZone, kGuard) {
        std::fill(begin(), end(), fill);
    }

    T* data() { return memory.data() + kZone; }
    const T* data() const { return memory.data() + kZone; }
    T* begin() { return data(); }
    T* end() { return data() + size(); }
    size_t size() const { return memory.size() - 2 * kZone; }
    T operator[](size_t i) const { return data()[i]; }
    std::vector<T> toVector() const { return {data(), data() + size()}; }

    bool intact() const {
        const auto isGuard = [](T element) { return element == kGuard; };
        return std::all_of(memory.begin(), memory.begin() + kZone, isGuard) &&
               std::all_of(memory.end() - kZone, memory.end(), isGuard);
    }

  private:
    static constexpr ptrdiff_t kZone = 64;
    static constexpr T kGuard = static_cast<T>(0x5A5A);

    std::vector<T> memory;
};

}  // namespace uafd
