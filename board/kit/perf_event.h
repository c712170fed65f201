// SPDX-License-Identifier: Apache-2.0
// Counts events of a thread, or of everything on a processor, and on request records each with its
// time. Uses perf_event_open and tracefs; one thread at a time. Throws on failure.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"

struct perf_event_attr;

namespace board {

// A thread wherever it runs, or a processor whoever uses it.
struct PerfScope {
    static PerfScope thread(pid_t tid) { return {tid, -1}; }
    static PerfScope processor(int number) { return {-1, number}; }
    pid_t tid;
    int cpu;
};

struct PerfSample {
    Ns at;
    std::array<uint64_t, 3> fields;  // the first of the trace event's own, 0 where it has fewer
};

// What a processor ran: the addresses of the function and its callers, innermost first. The
// kernel's are empty when it ran the program itself.
struct CallStack {
    std::vector<uint64_t> kernel;
    std::vector<uint64_t> program;
};

std::vector<Ns> timesOf(const std::vector<PerfSample>& samples);
void append(std::vector<Ns>* all, const std::vector<Ns>& more);

// A small integer names a trace event; its fields are in its `format` file below tracefs.
using TraceId = uint64_t;
// The id of an event such as "raw_syscalls/sys_enter".
TraceId traceId(const std::string& event);
// Defines an event for calls of a kernel function, replacing one of that name; `definition` is as
// in tracefs's kprobe_events.
TraceId traceKernel(const std::string& name, const std::string& definition);

class PerfEvent {
  public:
    static PerfEvent pageFaults(PerfScope scope);
    // Calls of a function of the C library, from any code.
    static PerfEvent libraryCalls(const char* function, PerfScope scope);
    // With a filter on the event's fields, as tracefs has it, unless that is empty.
    static PerfEvent traced(TraceId id, PerfScope scope, const std::string& filter = "");
    // Every `period` of a thread's processor time.
    static PerfEvent cpuTime(Ns period, PerfScope scope);
    PerfEvent(PerfEvent&& other) noexcept;
    PerfEvent& operator=(PerfEvent&&) = delete;
    ~PerfEvent();

    int64_t count() const;

    // From now on keeps each occurrence until it is taken.
    void record();
    // The occurrences since the last call, in order. Throws when there were more than can be kept,
    // about eight thousand.
    std::vector<PerfSample> take();
    // The same for samples of processor time.
    std::vector<CallStack> takeStacks();
    // From the next occurrence on.
    void setPeriod(Ns period);

  private:
    PerfEvent(const perf_event_attr& attr, PerfScope scope);
    // Calls see(record) for each sample since the last call: what follows its header.
    template <typename See>
    void eachSample(See&& see);
    void copyOut(uint64_t from, void* to, size_t count) const;

    Fd fd;
    void* ring = nullptr;
};

}  // namespace board
