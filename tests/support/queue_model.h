// SPDX-License-Identifier: Apache-2.0
// A simple model of the byte queue: it moves one byte at a time, and positions wrap round after the
// storage's last byte. It also models the storage's contents, so that everything a call leaves in
// memory can be compared, even where new storage was attached while the depth still belongs to the
// old one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace uafd {

class QueueModel {
  public:
    // Returns the queue's codes; a null pointer is `false`.
    int setBuffer(bool haveStorage, const std::vector<uint8_t>& contents, int64_t size) {
        if (!haveStorage) {
            return 2;
        }
        if (size < 1 || size % 4 != 0) {
            return 3;
        }
        storage = contents;
        readAt = writeAt = 0;
        return 0;
    }

    void clear() { readAt = writeAt = depth = 0; }

    // A null `block` is a null source.
    int enqueue(const uint8_t* block, int64_t n) {
        const int code = check(block != nullptr, n);
        if (code != 0 || n == 0) {
            return code;
        }
        if (static_cast<int64_t>(depth) + n > size()) {
            return 6;
        }
        for (int64_t i = 0; i < n; i++) {
            storage[writeAt] = block[i];
            writeAt = after(writeAt);
            depth++;
        }
        return 0;
    }

    // Appends the delivered bytes to `out`.
    int dequeue(bool haveTarget, int64_t n, std::vector<uint8_t>& out) {
        const int code = check(haveTarget, n);
        for (int64_t i = 0; code == 0 && i < n; i++) {
            if (depth == 0) {
                out.push_back(0);
                continue;
            }
            out.push_back(storage[readAt]);
            readAt = after(readAt);
            depth--;
        }
        return code;
    }

    size_t depth = 0;              // bytes
    std::vector<uint8_t> storage;  // empty until attached
    size_t readAt = 0;
    size_t writeAt = 0;

  private:
    int64_t size() const { return static_cast<int64_t>(storage.size()); }
    size_t after(size_t position) const { return position + 1 < storage.size() ? position + 1 : 0; }

    int check(bool haveData, int64_t n) const {
        if (!haveData) {
            return 2;
        }
        return n < 0 || n > size() ? 4 : 0;
    }
};

}  // namespace uafd
