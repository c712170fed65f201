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

    // Event loop only. `set` keeps a copy of `text`; a null text, or a copy for which there is no
    // memory, is an unset name. The copy that it replaces is kept aside, and taken back when its
    // text is set again.
    void set(const char* text);

    // Event loop only, when no thread of the channel can hold a replaced copy.
    void freeReplaced();

    // What a log line shows for a name.
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
    Copy* owned = nullptr;                      // behind `current`
    Copy* replaced = nullptr;                   // of different texts
};

}  // namespace uafd
