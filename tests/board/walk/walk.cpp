// SPDX-License-Identifier: Apache-2.0
#include "tests/board/walk/walk.h"

#include <algorithm>
#include <cstdio>
#include <sched.h>
#include <unistd.h>

#include <sys/stat.h>

#include "board/kit/daemon.h"

namespace uafd {
namespace {

using namespace board;

constexpr std::ptrdiff_t kRealtimeThreads = 3;  // two workers and the FIFO's reader
constexpr Ns kPatience = 30 * kSecond;          // a suspend delays a channel by six seconds
constexpr Ns kSyncPatience = 60 * kSecond;
constexpr Ns kBusyWindow = kSecond;
constexpr size_t kPendingMessages = 128;  // in the daemon, in a socket, and a few more

}  // namespace

void Walk::begin() {
    board().start();
    board().app.reset();
    startApp({});
}

void Walk::note(const std::string& what) {
    did += (did.empty() ? "" : ", ") + what;
}

void Walk::startApp(AppOptions options) {
    app = std::make_unique<AppProcess>(options);
    watch.forget();
    seenMessages = 0;
}

void Walk::endApp() {
    app.reset();
    watch.forget();
}

void Walk::restartDaemon(const std::function<void()>& between) {
    board().daemon.stop();
    between();
    startApp({});
    board().startDaemon();
}

void Walk::announce(const char* name) {
    printf("%s", name);
    fflush(stdout);
}

std::string Walk::step() {
    did.clear();
    act();
    printf("%s%s\n", did.empty() ? "" : ": ", did.c_str());
    fflush(stdout);
    const Ns since = now();
    const Ns cpu = cpuOf(board().daemon.pid());
    pause();
    return findOddity(since, cpu);
}

// Most steps follow each other quickly.
void Walk::pause() {
    const int64_t chance = random.below(100);
    const Ns limit = chance < 35   ? 0
                     : chance < 75 ? 20 * kMs
                     : chance < 95 ? 300 * kMs
                                   : 3 * kSecond;
    if (limit > 0) {
        sleepFor(random.below(limit));
    }
}

std::string Walk::findOddity(Ns since, Ns cpuBefore) {
    if (!board().daemon.isRunning()) {
        return "the daemon has ended";
    }
    const Ns passed = now() - since;
    const Ns used = cpuOf(board().daemon.pid()) - cpuBefore;
    if (passed >= kBusyWindow && used > passed / 2) {
        return "the daemon was busy for " + std::to_string(used / kMs) + " of " +
               std::to_string(passed / kMs) + " ms";
    }
    for (const auto find :
         {&Walk::findCrowd, &Walk::findUnknownLine, &Walk::findRepetition, &Walk::findDelay}) {
        const std::string oddity = (this->*find)();
        if (!oddity.empty()) {
            return oddity;
        }
    }
    return "";
}

std::string Walk::findCrowd() {
    const auto threads = threadsOf(board().daemon.pid());
    const auto realtime = std::count_if(threads.begin(), threads.end(),
                                        [](const ThreadView& t) { return t.policy == SCHED_FIFO; });
    return threads.size() > kStreamingThreads || realtime > kRealtimeThreads
               ? std::to_string(threads.size()) + " threads, " + std::to_string(realtime) +
                     " of them real-time"
               : "";
}

std::string Walk::findUnknownLine() {
    const auto& lines = board().daemon.log();
    for (; seenLines < lines.size(); ++seenLines) {
        if (!isKnown(lines[seenLines])) {
            return "the log says: " + lines[seenLines].brief();
        }
        if (matches(lines[seenLines].text, "queueMsg: overwriting*") ||
            matches(lines[seenLines].text, "sendMsg failed*")) {
            messagesAroundLoss = kPendingMessages;
        }
    }
    return "";
}

std::string Walk::findRepetition() {
    std::vector<Message> messages;
    if (app) {
        messages = app->messageValues(seenMessages);
    } else if (board().app) {
        messages = board().app->messageValues(seenMessages);
    }
    seenMessages += messages.size();
    if (messagesAroundLoss > 0) {
        const size_t unjudged = std::min(messages.size(), messagesAroundLoss);
        messagesAroundLoss -= unjudged;
        messages.erase(messages.begin(), messages.begin() + static_cast<std::ptrdiff_t>(unjudged));
        watch.forget();
    }
    watch.see(messages);
    return watch.repetition();
}

std::string Walk::prove() {
    std::string damage = makeSound();
    if (damage.empty()) {
        damage = board().findDamage();
    }
    if (damage.empty()) {
        damage = proveMore();
    }
    if (damage.empty()) {
        damage = findUnknownLine();
    }
    if (damage.empty()) {
        damage = findRepetition();
    }
    if (damage.empty()) {
        damage = findDelay();
    }
    board().app.reset();
    startApp({});
    return damage;
}

// When the queue is full, the answer overwrites the queue's last message, and the next message
// overwrites the answer. By the time of a second request the queue has been sent.
bool Walk::syncUp() {
    const auto answered = [this] {
        const auto messages = board().app->messageValues();
        return std::find(messages.begin(), messages.end(), Message{0, 1}) != messages.end();
    };
    const auto lost = [this] { return board().daemon.count("queueMsg: overwriting*"); };
    const auto lostBefore = lost();
    App::send({7, 0});
    if (waitFor(answered, kSyncPatience)) {
        return true;
    }
    if (lost() == lostBefore) {
        return false;
    }
    App::send({7, 0});
    return waitFor(answered, kSyncPatience);
}

// After the next starts the daemon must be as good as new.
std::string Walk::makeSound() {
    endApp();
    restore();
    for (const char* fifo : {kFifoRx, kFifoTx}) {
        struct stat status {};
        if (stat(fifo, &status) == 0 && !S_ISFIFO(status.st_mode)) {
            unlink(fifo);
        }
    }
    board().app = std::make_unique<App>();
    seenMessages = 0;
    if (!board().settle(kPatience)) {
        return "event records are not handled";
    }
    if (!syncUp()) {
        return "a sync-up is not answered";
    }
    // This start cleans up what a failed one may have left.
    sleepFor(kSecond);
    switchStreams(true);
    if (!board().hasThreads(kStreamingThreads, kPatience)) {
        return "a stream does not start";
    }
    switchStreams(false);
    return board().hasThreads(kIdleThreads, kPatience) ? "" : "a stream does not stop";
}

}  // namespace uafd
