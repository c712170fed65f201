// SPDX-License-Identifier: Apache-2.0
#include "board/kit/perf_event.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>

namespace board {
namespace {

constexpr char kTracefs[] = "/sys/kernel/tracing/";
constexpr size_t kPageBytes = 4096;
constexpr size_t kRingBytes = 128 * kPageBytes;
constexpr size_t kCommonBytes = 8;  // of every trace event, before its own fields

std::string tracefs(const std::string& name) {
    if (!exists(std::string(kTracefs) + "events") &&
        mount("tracefs", kTracefs, "tracefs", 0, nullptr) != 0) {
        fail("mounting tracefs");
    }
    return kTracefs + name;
}

perf_event_attr attributes(uint32_t type, uint64_t config) {
    perf_event_attr attr{};
    attr.size = sizeof attr;
    attr.type = type;
    attr.config = config;
    attr.sample_period = 1;
    attr.sample_type = PERF_SAMPLE_TIME | PERF_SAMPLE_RAW;
    attr.use_clockid = 1;
    attr.clockid = CLOCK_MONOTONIC;
    attr.watermark = 1;  // nobody is to be woken
    attr.wakeup_watermark = kRingBytes;
    return attr;
}

// The offset of a C library function in the library's file.
struct Code {
    std::string path;
    uint64_t offset;
};

Code findCode(const char* function) {
    const auto address = reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, function));
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        uintptr_t begin = 0;
        uintptr_t end = 0;
        uint64_t offset = 0;
        char dash = 0;
        std::string access;
        std::string device;
        std::string inode;
        Code code;
        fields >> std::hex >> begin >> dash >> end >> access >> offset >> device >> inode >>
            code.path;
        if (begin <= address && address < end) {
            code.offset = address - begin + offset;
            return code;
        }
    }
    throw std::runtime_error(std::string("no library has ") + function);
}

perf_event_mmap_page* header(void* ring) {
    return static_cast<perf_event_mmap_page*>(ring);
}

}  // namespace

std::vector<Ns> timesOf(const std::vector<PerfSample>& samples) {
    std::vector<Ns> times;
    for (const PerfSample& sample : samples) {
        times.push_back(sample.at);
    }
    return times;
}

void append(std::vector<Ns>* all, const std::vector<Ns>& more) {
    all->insert(all->end(), more.begin(), more.end());
}

TraceId traceId(const std::string& event) {
    const std::string id = contents(tracefs("events/" + event + "/id"));
    if (id.empty()) {
        throw std::runtime_error("the kernel has no trace event " + event);
    }
    return std::stoull(id);
}

TraceId traceKernel(const std::string& name, const std::string& definition) {
    if (!exists(tracefs("events/kprobes/" + name))) {
        const Fd list = Fd::open(tracefs("kprobe_events"), O_WRONLY | O_APPEND);
        const std::string line = "p:" + name + " " + definition;
        if (write(list.get(), line.data(), line.size()) < 0) {
            fail(line);
        }
    }
    return traceId("kprobes/" + name);
}

PerfEvent PerfEvent::pageFaults(PerfScope scope) {
    return {attributes(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_PAGE_FAULTS), scope};
}

PerfEvent PerfEvent::libraryCalls(const char* function, PerfScope scope) {
    const Code code = findCode(function);
    perf_event_attr attr = attributes(
        static_cast<uint32_t>(std::stoul(contents("/sys/bus/event_source/devices/uprobe/type"))),
        0);
    attr.uprobe_path = reinterpret_cast<uintptr_t>(code.path.c_str());
    attr.probe_offset = code.offset;
    return {attr, scope};
}

PerfEvent PerfEvent::traced(TraceId id, PerfScope scope, const std::string& filter) {
    PerfEvent event(attributes(PERF_TYPE_TRACEPOINT, id), scope);
    if (!filter.empty() && ioctl(event.fd.get(), PERF_EVENT_IOC_SET_FILTER, filter.c_str()) != 0) {
        fail("filter " + filter);
    }
    return event;
}

PerfEvent PerfEvent::cpuTime(Ns period, PerfScope scope) {
    perf_event_attr attr = attributes(PERF_TYPE_SOFTWARE, PERF_COUNT_SW_TASK_CLOCK);
    attr.sample_period = static_cast<uint64_t>(period);
    attr.sample_type = PERF_SAMPLE_CALLCHAIN;
    return {attr, scope};
}

PerfEvent::PerfEvent(const perf_event_attr& attr, PerfScope scope)
    : fd(static_cast<int>(
          syscall(SYS_perf_event_open, &attr, scope.tid, scope.cpu, -1, PERF_FLAG_FD_CLOEXEC))) {
    if (!fd.isOpen()) {
        fail("perf_event_open");
    }
}

PerfEvent::PerfEvent(PerfEvent&& other) noexcept
    : fd(std::move(other.fd)), ring(std::exchange(other.ring, nullptr)) {}

PerfEvent::~PerfEvent() {
    if (ring != nullptr) {
        munmap(ring, kPageBytes + kRingBytes);
    }
}

int64_t PerfEvent::count() const {
    int64_t count = 0;
    if (read(fd.get(), &count, sizeof count) != sizeof count) {
        fail("reading a performance counter");
    }
    return count;
}

void PerfEvent::record() {
    ring = mmap(nullptr, kPageBytes + kRingBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (ring == MAP_FAILED) {
        ring = nullptr;
        fail("mapping a performance event's ring");
    }
}

template <typename See>
void PerfEvent::eachSample(See&& see) {
    std::vector<char> record;
    const uint64_t head = __atomic_load_n(&header(ring)->data_head, __ATOMIC_ACQUIRE);
    uint64_t tail = header(ring)->data_tail;
    while (tail != head) {
        perf_event_header start{};
        copyOut(tail, &start, sizeof start);
        if (start.type == PERF_RECORD_LOST) {
            throw std::runtime_error("performance events were lost");
        }
        if (start.type == PERF_RECORD_SAMPLE) {
            record.resize(start.size - sizeof start);
            copyOut(tail + sizeof start, record.data(), record.size());
            see(record.data());
        }
        tail += start.size;
    }
    __atomic_store_n(&header(ring)->data_tail, tail, __ATOMIC_RELEASE);
}

std::vector<PerfSample> PerfEvent::take() {
    struct Start {
        Ns at;
        uint32_t rawBytes;
    };
    std::vector<PerfSample> samples;
    eachSample([&](const char* record) {
        Start start{};
        memcpy(&start, record, sizeof start);
        PerfSample sample{start.at, {}};
        const char* const raw =
            record + offsetof(Start, rawBytes) + sizeof start.rawBytes + kCommonBytes;
        memcpy(sample.fields.data(), raw,
               std::min(start.rawBytes - kCommonBytes, sizeof sample.fields));
        samples.push_back(sample);
    });
    return samples;
}

std::vector<CallStack> PerfEvent::takeStacks() {
    std::vector<CallStack> stacks;
    eachSample([&](const char* record) {
        uint64_t count = 0;
        memcpy(&count, record, sizeof count);
        std::vector<uint64_t> addresses(count);
        memcpy(addresses.data(), record + sizeof count, count * sizeof addresses[0]);
        CallStack stack;
        std::vector<uint64_t>* side = nullptr;
        for (const uint64_t address : addresses) {
            if (address == PERF_CONTEXT_KERNEL || address == PERF_CONTEXT_USER) {
                side = address == PERF_CONTEXT_KERNEL ? &stack.kernel : &stack.program;
            } else if (side != nullptr) {
                side->push_back(address);
            }
        }
        stacks.push_back(std::move(stack));
    });
    return stacks;
}

void PerfEvent::setPeriod(Ns period) {
    auto value = static_cast<uint64_t>(period);
    if (ioctl(fd.get(), PERF_EVENT_IOC_PERIOD, &value) != 0) {
        fail("setting a performance event's period");
    }
}

// A record may wrap around the ring's end.
void PerfEvent::copyOut(uint64_t from, void* to, size_t count) const {
    const auto* const data = static_cast<const char*>(ring) + kPageBytes;
    const size_t at = from % kRingBytes;
    const size_t head = std::min(count, kRingBytes - at);
    memcpy(to, data + at, head);
    memcpy(static_cast<char*>(to) + head, data, count - head);
}

}  // namespace board
