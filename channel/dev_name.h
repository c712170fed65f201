// SPDX-License-Identifier: Apache-2.0
// One device name of a channel. The event loop sets and clears it without a lock while the
// channel's threads may be reading it: a reader loads the pointer once, and a replaced copy stays
// valid until its owner knows that no reader can still hold it.
#pragma once

#include <atomic>

namespace uafd {

class DevName {
  public:
    DevName() = default;
    ~DevName();
    DevName(const DevName&) = delete;
    DevName& operator=(const DevName&) = delete;

    // The name, or null when unset. Any thread; load once per use.
    const char* load() const { return current.load(std::memory_order_acquire); }

    // Event loop only. Keeps a copy of `text`; the name is unset when the text is null or memory
    // runs out. The replaced copy is kept, and used again when its text is set again.
    void set(const char* text);

    // Event loop only, when no thread of the channel can hold a replaced copy.
    void freeReplaced();

    // The name as a log line shows it.
    static const char* printable(const char* name) { return name != nullptr ? name : "(null)"; }

  private:
    struct Copy {
        char* text;
        Copy* next;  // the next of the replaced copies
    };
    Copy* takeBack(const char* text);
    static Copy* copyOf(const char* text);
    static void freeAll(Copy* copies);

    std::atomic<const char*> current{nullptr};  // release/acquire: the text is complete when seen
    Copy* owned = nullptr;                      // the copy that holds `current`
    Copy* replaced = nullptr;                   // no two with the same text
};

}  // namespace uafd
