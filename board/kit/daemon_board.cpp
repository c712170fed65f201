// SPDX-License-Identifier: Apache-2.0
#include "board/kit/daemon_board.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <sched.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "board/kit/files.h"

namespace board {
namespace {

constexpr char kMicStatus[] = "/proc/asound/card0/pcm0c/sub0/status";
constexpr int kRealtimePriority = 58;
// How long threads are watched, and how much processor time each may use: one that only waits, and
// one that streams, which is the costlier time to simulate.
constexpr Ns kIdleWatch = kSecond;
constexpr Ns kIdleCpu = 20 * kMs;
constexpr Ns kStreamingWatch = 250 * kMs;
constexpr Ns kStreamingCpu = 38 * kMs;
// The memory that the first streams need and keep: 80 to 88 kB of buffers, thread stacks and heaps;
// 156 kB when the first search for the card comes with them. The rest is room for the order in
// which threads first allocate.
constexpr int64_t kFirstUseKb = 180;
constexpr int64_t kEnoughFrames = kRate / 4;

std::string names(const std::vector<std::string>& list) {
    std::string text;
    for (const std::string& name : list) {
        text += " " + name;
    }
    return text;
}

}  // namespace

MicService::MicService() : pid(fork()) {
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl("/bin/mic_capture", "mic_capture", nullptr);
        _exit(127);
    }
    const bool running = waitFor([] {
        const std::string status = contents(kMicStatus);
        return status.find("state: RUNNING") != std::string::npos &&
               status.find("tstamp      : 0.") == std::string::npos;
    });
    if (!running) {
        throw std::runtime_error("the board's microphone capture does not run");
    }
}

MicService::~MicService() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

DaemonBoard::DaemonBoard(const std::string& name, DaemonStarter starter)
    : daemon(name, std::move(starter)) {
    for (const char* path : {kFifoRx, kFifoTx, kSocketRx, kSocketTx}) {
        unlink(path);
    }
}

void DaemonBoard::start(bool withMicService, AppOptions options) {
    if (withMicService) {
        micService = std::make_unique<MicService>();
    }
    app = std::make_unique<App>(options);
    startDaemon();
}

void DaemonBoard::startDaemon(const std::function<void()>& prepare) {
    const size_t mark = daemon.mark();
    daemon.start(prepare);
    // The cable monitor, where it starts, opens a file for a moment before it enters its loop.
    if (!waitFor([&] { return hasBothGadgetDescriptors(); }) || !hasThreads(idleThreads()) ||
        !(missingThreads > 0 || daemon.waitForLog("enter loop", mark)) || !settle()) {
        throw std::runtime_error("the daemon did not come up");
    }
    descriptorsAtStart = lastingDescriptors();
    memoryAtStart = memoryOf(daemon.pid());
}

// The driver logs an open before the process has the descriptor.
bool DaemonBoard::hasBothGadgetDescriptors() const {
    const std::vector<std::string> targets = descriptorsOf(daemon.pid());
    return std::count(targets.begin(), targets.end(), "/dev/uac_user") == 2;
}

bool DaemonBoard::settle(Ns limit) {
    return waitFor([this] { return isSettled(); }, limit);
}

bool DaemonBoard::eventLoopSleepsIn(const std::string& function) const {
    return contents("/proc/" + std::to_string(daemon.pid()) + "/wchan") == function;
}

bool DaemonBoard::hasThreads(size_t count, Ns limit) {
    return waitFor([&] { return threadCount(daemon.pid()) == count; }, limit);
}

bool DaemonBoard::waitForChannel(uint32_t channel, bool on, size_t messageMark, Ns limit) {
    const Message wanted{channel, on ? 1U : 0U};
    return waitFor(
        [&] {
            const std::vector<Message> values = app->messageValues(messageMark);
            return std::find(values.begin(), values.end(), wanted) != values.end();
        },
        limit);
}

std::string DaemonBoard::findDamage() {
    audioHost().stopPlaying();
    audioHost().stopRecording();
    std::string damage = findIdleDamage();
    if (damage.empty()) {
        damage = findStreamingDamage();
    }
    return damage.empty() ? findLostMemory() : damage;
}

std::string DaemonBoard::findIdleDamage() {
    if (!daemon.isRunning()) {
        return "the daemon has ended";
    }
    if (!settle()) {
        return "event records are not handled";
    }
    if (!hasThreads(idleThreads())) {
        return std::to_string(threadCount(daemon.pid())) + " threads when idle";
    }
    if (lastingDescriptors() != descriptorsAtStart) {
        return "descriptors were" + names(descriptorsAtStart) + ", are" +
               names(lastingDescriptors());
    }
    return findBusyThread(kIdleWatch, kIdleCpu);
}

std::string DaemonBoard::findStreamingDamage() {
    AudioHost& host = audioHost();
    app->speak(noise);
    app->takeHeard();
    const int64_t heardBefore = app->heardFrames();
    host.play(noise);
    host.record();
    Samples recorded;
    const bool streams = waitFor([&] {
        const Samples more = host.takeRecording();
        recorded.insert(recorded.end(), more.begin(), more.end());
        return app->heardFrames() > heardBefore + kEnoughFrames &&
               static_cast<int64_t>(recorded.size() - firstSound(recorded)) > kEnoughFrames;
    });
    std::string damage = streams ? findBusyThread(kStreamingWatch, kStreamingCpu) : "";
    const std::vector<ThreadView> threads = threadsOf(daemon.pid());
    host.stopPlaying();
    host.stopRecording();
    app->speak(silence);
    if (!streams) {
        return "a direction does not stream";
    }
    const Heard heard = app->takeHeard();
    if (firstSound(heard.left) == heard.left.size() || heard.unequalFrames != 0) {
        return "the app does not hear the host";
    }
    const auto realtime = std::count_if(threads.begin(), threads.end(), [](const ThreadView& t) {
        return t.policy == SCHED_FIFO && t.priority == kRealtimePriority;
    });
    if (threads.size() != kStreamingThreads - missingThreads ||
        realtime != static_cast<std::ptrdiff_t>(kStreamingThreads - kIdleThreads)) {
        return std::to_string(threads.size()) + " threads when streaming, " +
               std::to_string(realtime) + " of them real-time";
    }
    return damage.empty() && !hasThreads(idleThreads()) ? "a channel does not stop" : damage;
}

std::string DaemonBoard::findBusyThread(Ns watch, Ns allowed) {
    std::map<int, Ns> before;
    for (const ThreadView& thread : threadsOf(daemon.pid())) {
        before[thread.tid] = thread.cpu;
    }
    sleepFor(watch);
    for (const ThreadView& thread : threadsOf(daemon.pid())) {
        const Ns used = thread.cpu - before[thread.tid];
        if (used > allowed) {
            return "thread " + std::to_string(thread.tid) + " used " + std::to_string(used / kMs) +
                   " of " + std::to_string(watch / kMs) + " ms";
        }
    }
    return "";
}

std::string DaemonBoard::findLostMemory() const {
    const MemoryView memory = memoryOf(daemon.pid());
    if (memory.anonymousKb <= memoryAtStart.anonymousKb + kFirstUseKb) {
        return "";
    }
    return "memory was " + std::to_string(memoryAtStart.anonymousKb) + " kB after the start, is " +
           std::to_string(memory.anonymousKb) + " kB";
}

// The source channel keeps its FIFO open from its first start on.
std::vector<std::string> DaemonBoard::lastingDescriptors() const {
    std::vector<std::string> targets = descriptorsOf(daemon.pid());
    targets.erase(std::remove_if(targets.begin(), targets.end(),
                                 [](const std::string& target) {
                                     return target.compare(0, sizeof kFifoTx - 1, kFifoTx) == 0;
                                 }),
                  targets.end());
    return targets;
}

}  // namespace board
