// SPDX-License-Identifier: Apache-2.0
// What the streaming threads do while they stream, counted by the kernel: none allocates memory or
// causes a page fault, each makes the system calls and takes the locks listed below and no others,
// and all run at SCHED_FIFO 58. Meanwhile the latency control works and the threads log their
// progress.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <sys/mman.h>
#include <sys/syscall.h>

#include "board/kit/perf_event.h"
#include "board/kit/streaming.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr int kPriority = 58;
constexpr int kHostPpb = 1000000;       // the host is faster: frames are stretched
constexpr Ns kProbesSettle = kSecond;   // placing a probe faults a page in
constexpr Ns kMeasured = 60 * kSecond;  // each thread logs its progress at least once

constexpr uint64_t kReadFrames = 0x80184151;   // SNDRV_PCM_IOCTL_READI_FRAMES
constexpr uint64_t kWriteFrames = 0x40184150;  // SNDRV_PCM_IOCTL_WRITEI_FRAMES
constexpr uint64_t kSyncPointer = 0xc0884123;  // SNDRV_PCM_IOCTL_SYNC_PTR
constexpr char kToPcm[] = "ioctl WRITEI_FRAMES";
constexpr char kFromPcm[] = "ioctl READI_FRAMES";
constexpr char kSync[] = "ioctl SYNC_PTR";

// How often a thread may do something.
struct Allowance {
    int perPass = 0;
    int perHundredPasses = 0;
    int perLine = 0;  // of the log
};
using Allowances = std::map<std::string, Allowance>;

// A line of the log takes one write, among calls that keep it from blocking or raising a signal.
constexpr Allowance kForALine{0, 0, 1};
constexpr Allowance kTwiceForALine{0, 0, 2};

struct Conduct {
    const char* thread;
    pid_t tid;
    const char* onceAPass;  // the system call that counts the passes
    Ns pass;
    Allowances systemCalls;
    int locksPerPass;
};

// alsa-lib's wait takes the PCM's own lock, which no other thread uses, before and after its poll.
// The frame buffer's lock is taken once for each frame or block. On this processor the PCM's
// position is not mapped into the process: alsa-lib asks the kernel for it to learn the state,
// before a wait, after a transfer and for the check of the backlog.
std::vector<Conduct> conducts(const StreamingThreads& threads) {
    Allowances logged{{"getpid", kForALine},
                      {"gettid", kForALine},
                      {"rt_sigprocmask", kTwiceForALine},
                      {"rt_sigpending", kForALine},
                      {"write to the log", kForALine}};
    Allowances sink = logged;
    sink["ppoll"] = {1, 0, 1};
    sink[kFromPcm] = {1};
    sink[kSync] = {3, 1};
    sink["write"] = {1};
    Allowances source = logged;
    source["ppoll"] = {1, 0, 1};
    source[kToPcm] = {1};
    source[kSync] = {3};
    Allowances buffer = logged;
    buffer["ppoll"] = kForALine;
    buffer["read"] = {1};
    return {{"sink", threads.sink, "write", 5 * kMs, sink, 2},
            {"source", threads.source, kToPcm, 5 * kMs, source, 3},
            {"buffer", threads.buffer, "read", 10 * kMs, buffer, 1}};
}

std::string nameOf(const PerfSample& call) {
    static const std::map<uint64_t, const char*> kNames{
        {SYS_ppoll, "ppoll"},   {SYS_read, "read"},
        {SYS_getpid, "getpid"}, {SYS_gettid, "gettid"},
        {SYS_futex, "futex"},   {SYS_rt_sigprocmask, "rt_sigprocmask"},
        {SYS_mmap, "mmap"},     {SYS_rt_sigpending, "rt_sigpending"},
        {SYS_brk, "brk"},       {SYS_clock_nanosleep, "clock_nanosleep"}};
    static const std::map<uint64_t, const char*> kRequests{
        {kReadFrames, kFromPcm}, {kWriteFrames, kToPcm}, {kSyncPointer, kSync}};
    const auto [number, first, second] = call.fields;
    if (number == SYS_write) {
        return first == STDERR_FILENO ? "write to the log" : "write";
    }
    if (number == SYS_ioctl && kRequests.count(second) != 0) {
        return kRequests.at(second);
    }
    return kNames.count(number) != 0 ? kNames.at(number) : "system call " + std::to_string(number);
}

// Counts what one thread does, from construction on.
class Watch {
  public:
    explicit Watch(pid_t tid) : systemCalls(enters(tid)) {
        systemCalls.record();
        for (const char* function : {"malloc", "calloc", "realloc", "free", "posix_memalign",
                                     "aligned_alloc", "memalign", "valloc", "strdup"}) {
            events.emplace(function, PerfEvent::libraryCalls(function, PerfScope::thread(tid)));
        }
        for (const char* function :
             {"pthread_mutex_lock", "pthread_mutex_trylock", "pthread_mutex_timedlock",
              "pthread_rwlock_rdlock", "pthread_rwlock_wrlock", "pthread_spin_lock",
              "pthread_cond_wait", "pthread_cond_timedwait", "sem_wait", "flockfile"}) {
            events.emplace(function, PerfEvent::libraryCalls(function, PerfScope::thread(tid)));
        }
        events.emplace("page fault", PerfEvent::pageFaults(PerfScope::thread(tid)));
    }

    // Starts the count.
    void begin() {
        systemCalls.take();
        for (const auto& [what, event] : events) {
            before[what] = event.count();
        }
    }
    void look() {
        for (const PerfSample& call : systemCalls.take()) {
            ++doneSoFar[nameOf(call)];
        }
    }
    // How often the thread did each thing that is watched.
    std::map<std::string, int64_t> done() {
        look();
        std::map<std::string, int64_t> all = doneSoFar;
        for (const auto& [what, event] : events) {
            all[what] = event.count() - before[what];
        }
        return all;
    }

  private:
    static PerfEvent enters(pid_t tid) {
        return PerfEvent::traced(traceId("raw_syscalls/sys_enter"), PerfScope::thread(tid));
    }

    PerfEvent systemCalls;
    std::map<std::string, PerfEvent> events;
    std::map<std::string, int64_t> before;
    std::map<std::string, int64_t> doneSoFar;
};

class Realtime : public BoardCase {
  protected:
    int linesOf(pid_t tid, size_t mark) {
        const std::vector<LogLine>& log = daemon.log();
        return static_cast<int>(
            std::count_if(log.begin() + static_cast<std::ptrdiff_t>(mark), log.end(),
                          [tid](const LogLine& line) { return line.tid == tid; }));
    }

    void expectScheduling(pid_t tid) {
        const auto threads = threadsOf(daemon.pid());
        const auto found = std::find_if(threads.begin(), threads.end(),
                                        [tid](const auto& thread) { return thread.tid == tid; });
        ASSERT_NE(found, threads.end());
        EXPECT_EQ(found->policy, SCHED_FIFO);
        EXPECT_EQ(found->priority, kPriority);
    }

    void expectConduct(const Conduct& conduct, Watch* watch, int lines) {
        std::map<std::string, int64_t> done = watch->done();
        const int64_t passes = done[conduct.onceAPass];
        EXPECT_NEAR(static_cast<double>(passes), static_cast<double>(kMeasured / conduct.pass),
                    static_cast<double>(passes) / 100);
        EXPECT_GE(lines, 1) << "the progress was not logged";
        Allowances allowed = conduct.systemCalls;
        allowed["pthread_mutex_lock"] = {conduct.locksPerPass, 0, 1};
        for (const auto& [what, times] : done) {
            const Allowance most = allowed[what];
            // The first and the last pass may be counted in part.
            EXPECT_LE(times, (passes + 1) * most.perPass +
                                 (passes / 100 + 1) * most.perHundredPasses + lines * most.perLine)
                << what << ", in " << passes << " passes with " << lines << " lines logged";
            if (times != 0) {
                printf("realtime: %-6s %-20s %8.3f per pass\n", conduct.thread, what.c_str(),
                       static_cast<double>(times) / static_cast<double>(passes));
            }
        }
    }
};

// Shows that the watch counts everything that it looks for.
TEST(Watching, SeesWhatAThreadDoes) {
    Watch watch(gettid());
    watch.begin();
    auto* const page = static_cast<volatile char*>(
        mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    *page = 1;
    void* volatile memory = malloc(1);
    free(memory);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
    sleepFor(kMs);
    const std::map<std::string, int64_t> done = watch.done();
    EXPECT_GE(done.at("page fault"), 1);
    EXPECT_GE(done.at("malloc"), 1);
    EXPECT_GE(done.at("free"), 1);
    EXPECT_GE(done.at("pthread_mutex_lock"), 1);
    EXPECT_EQ(done.at("clock_nanosleep"), 1);
    EXPECT_EQ(done.at("mmap"), 1);
}

TEST_F(Realtime, StreamingThreadsDoNothingThatMayTakeLong) {
    start();
    Streaming streaming(this);
    host.command("ppb " + std::to_string(kHostPpb));
    const std::vector<Conduct> all = conducts(streaming.threads());
    std::map<pid_t, Watch> watches;
    for (const Conduct& conduct : all) {
        watches.emplace(conduct.tid, conduct.tid);
    }
    streaming.run(kProbesSettle, [] {});
    for (auto& [tid, watch] : watches) {
        watch.begin();
    }
    const size_t mark = daemon.mark();
    streaming.run(kMeasured, [&] {
        for (auto& [tid, watch] : watches) {
            watch.look();
        }
    });
    for (const Conduct& conduct : all) {
        SCOPED_TRACE(conduct.thread);
        expectScheduling(conduct.tid);
        expectConduct(conduct, &watches.at(conduct.tid), linesOf(conduct.tid, mark));
    }
    EXPECT_EQ(daemon.count("clear timeout, pcmStallCnt=#", mark), 0);
}

}  // namespace
}  // namespace uafd
