// SPDX-License-Identifier: Apache-2.0
#include "board/kit/hogs.h"

#include <csignal>
#include <cstring>
#include <sched.h>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "board/kit/process_view.h"

namespace board {
namespace {

// The emulator runs its processors in turn, each until it waits or yields. A processor that does
// not yield delays the others by up to a millisecond of the clock that they share. Code without
// branches costs the emulator little.
void spin() {
    asm volatile(
        ".rept 4000\n"
        "nop\n"
        ".endr\n"
        "yield\n");
}

// Page faults, cleared pages, and all of them returned at once.
void keepKernelBusy(size_t pages) {
    const size_t bytes = pages * 4096;
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memset(memory, 1, bytes);
    munmap(memory, bytes);
}

[[noreturn]] void hog(int processor) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(processor, &only);
    sched_setaffinity(0, sizeof only, &only);
    // Several processors must not wait for long; see above.
    const size_t pages = processors() == 1 ? 16 : 1;
    for (;;) {
        for (size_t i = 0; i < 100 * pages; ++i) {
            spin();
        }
        keepKernelBusy(pages);
    }
}

}  // namespace

Hogs::Hogs() {
    for (int processor = 0; processor < processors(); ++processor) {
        pids.push_back(fork());
        if (pids.back() == 0) {
            hog(processor);
        }
    }
}

Hogs::~Hogs() {
    for (const pid_t pid : pids) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

Ns Hogs::cpu() const {
    Ns sum = 0;
    for (const pid_t pid : pids) {
        sum += cpuOf(pid);
    }
    return sum;
}

int processors() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

}  // namespace board
