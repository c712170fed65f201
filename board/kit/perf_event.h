// SPDX-License-Identifier: Apache-2.0
// What the kernel sees a thread, or everybody on a processor, do: counted, and if wanted recorded
// with the time of each. Uses perf_event_open and tracefs; one thread at a time. What fails throws.
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

// Where a processor was: the addresses of what it ran and of what had called that, innermost first.
// The kernel's are empty when it ran the program itself.
struct CallStack {
    std::vector<uint64_t> kernel;
    std::vector<uint64_t> program;
};

std::vector<Ns> timesOf(const std::vector<PerfSample>& samples);
void append(std::vector<Ns>* all, const std::vector<Ns>& more);

// A small integer names a trace event; its fields are in its `format` file below tracefs.
using TraceId = uint64_t;
// Of "raw_syscalls/sys_enter", for example.
TraceId traceId(const std::string& event);
// Makes an event of calls of a kernel function; `definition` as in tracefs's kprobe_events. One
// event of a name; made again when it was there.
TraceId traceKernel(const std::string& name, const std::string& definition);

class PerfEvent {
  public:
    static PerfEvent pageFaults(PerfScope scope);
    // Calls of a function of the C library, from wherever.
    static PerfEvent libraryCalls(const char* function, PerfScope scope);
    // With a filter on the event's fields, as tracefs has it, unless that is empty.
    static PerfEvent traced(TraceId id, PerfScope scope, const std::string& filter = "");
    // Every `period` of a thread's processor time.
    static PerfEvent cpuTime(Ns period, PerfScope scope);
    PerfEvent(PerfEvent&& other) noexcept;
    PerfEvent& operator=(PerfEvent&&) = delete;
    ~PerfEvent();

    int64_t count() const;

    // From here on each occurrence is kept, until it is taken.
    void record();
    // Those since the last call, in their order. Throws when there were more than are kept: some
    // eight thousand.
    std::vector<PerfSample> take();
    // The same of processor time.
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
