// SPDX-License-Identifier: Apache-2.0
// The USB wire: commands, counters and the event log of the usb_wire module, whose contract is
// board/wire/README.md. What fails throws. One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/files.h"

namespace board {

constexpr int64_t kUframesPerMs = 8;
constexpr int64_t kAtOnce = -1;  // in place of a microframe

struct WireEvent {
    Ns at;           // when it was noted
    int64_t uframe;  // the microframe in which it happened
    std::string text;
};

class Wire : public ModuleControl {
  public:
    Wire() : ModuleControl("/dev/usb_wire", "/proc/usb_wire") {}

    // Done when it returns, or planned.
    void command(const std::string& text, int64_t at = kAtOnce);
    // Everything as after loading: plugged, high speed, no fault, nothing planned, clocks equal.
    void restore();

    void plug(int64_t at = kAtOnce) { command("plug", at); }
    void unplug(int64_t at = kAtOnce) { command("unplug", at); }
    void reset(int64_t at = kAtOnce) { command("reset", at); }
    void suspend(int64_t at = kAtOnce) { command("suspend", at); }
    void resume(int64_t at = kAtOnce) { command("resume", at); }
    void setFullSpeed(bool full) { command(full ? "speed full" : "speed high"); }
    void setPpb(int64_t ppb, int64_t at = kAtOnce) { command("ppb " + std::to_string(ppb), at); }
    void poll(const std::string& endpoint, bool on, int64_t at = kAtOnce);
    // The fault is "lost", "crc" or "babble".
    void fault(const std::string& endpoint, const std::string& fault, int times = 1,
               int64_t at = kAtOnce);

    // 0 when the endpoint has not moved anything yet.
    int64_t counterOrZero(const std::string& key) const;
    int64_t uframe() const { return counter("uframe"); }
    // A microframe `ms` from now in which every pipe may have a packet.
    int64_t uframeIn(int64_t ms) const;
    // When a microframe begins under the present offset, by the contract's formula.
    Ns uframeTime(int64_t uframe) const;

    std::vector<WireEvent> events() const;
    // The microframes of the events with this text at their beginning, from microframe `since` on.
    std::vector<int64_t> uframesOf(const std::string& beginning, int64_t since = 0) const;
};

}  // namespace board
