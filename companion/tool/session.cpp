// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/session.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>

#include "companion/tool/access.h"
#include "companion/tool/command.h"

namespace uafd {
namespace {

constexpr int kReadFrames = 4096;
constexpr int64_t kTickNs = static_cast<int64_t>(kTickS * 1e9);
constexpr int64_t kNsPerMs = 1000000;
constexpr int kPatientTicks = 15;  // a daemon needs a moment to start after the FIFOs are open

volatile sig_atomic_t interrupted = 0;

void interrupt(int /*signal*/) {
    interrupted = 1;
}

// Signals that the process was started to ignore, as nohup does, stay ignored.
void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = interrupt;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) {
            sigaction(signal, &action, nullptr);
        }
    }
}

// Prints on standard error why these parts could not be opened.
void complain(int error, unsigned parts) {
    struct Part {
        unsigned bit;
        const char* name;
    };
    constexpr Part kParts[] = {{UAFD_SPEAKER, "the speaker"},
                               {UAFD_MIC, "the microphone"},
                               {UAFD_EVENTS, "the daemon's messages"}};
    std::string reason = uafd_companion_error_text(error);
    if (error == -EBUSY) {
        for (const Part& part : kParts) {
            uafd::Companion companion;
            if ((parts & part.bit) != 0 && companion.open(optionsFor(part.bit)) == -EBUSY) {
                reason = std::string("another app has ") + part.name;
                break;
            }
        }
    } else if (error == -EINVAL) {
        reason = "there is no group with this name";
    } else {
        const std::string obstacle = findObstacle();
        reason = obstacle.empty() ? reason : obstacle;
    }
    failed("opening", reason);
}

}  // namespace

int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

int msUntil(int64_t dueNs) {
    return static_cast<int>(std::max<int64_t>((dueNs - nowNs() + kNsPerMs - 1) / kNsPerMs, 0));
}

std::string timeText(bool isUtc) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    isUtc ? gmtime_r(&now.tv_sec, &parts) : localtime_r(&now.tv_sec, &parts);
    char text[32];
    const size_t size =
        strftime(text, sizeof text, isUtc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    snprintf(text + size, sizeof text - size, ".%03ld%s", now.tv_nsec / kNsPerMs, isUtc ? "Z" : "");
    return text;
}

int Session::tryOpen(unsigned parts) {
    openParts = parts;
    wasReached = false;
    ticksWithoutDaemon = 0;
    return companion.open(optionsFor(parts));
}

bool Session::open(unsigned parts) {
    int error = tryOpen(parts | UAFD_EVENTS);
    if (error == -EBUSY && (parts & UAFD_EVENTS) == 0) {
        error = tryOpen(parts);
    }
    if (error != 0) {
        complain(error, parts);
        return false;
    }
    return true;
}

void Session::forgetStates() {
    for (const uafd_event_type type : {UAFD_USB_STATE, UAFD_SPEAKER_STATE, UAFD_MIC_STATE}) {
        lastTold[type].reset();
    }
}

bool Session::wasInterrupted() {
    return interrupted != 0;
}

bool Session::run(Handler* handler, double seconds) {
    const int64_t begin = nowNs();
    const int64_t end = seconds > 0 ? begin + static_cast<int64_t>(seconds * 1e9) : INT64_MAX;
    int64_t tick = begin + kTickNs;
    int ready = 0;
    catchInterrupts();
    while ((ready >= 0 || ready == -EINTR) && !handler->isDone() && !wasInterrupted() &&
           nowNs() < end) {
        ready = companion.waitFor(msUntil(std::min(tick, end)));
        step(handler, std::max(ready, 0));
        if (nowNs() >= tick) {
            tick = std::max(tick + kTickNs, nowNs());
            waitForDaemon();
            handler->onTick();
        }
    }
    if (ready < 0 && ready != -EINTR) {
        failed("waiting", uafd_companion_error_text(ready));
        return false;
    }
    return true;
}

void Session::step(Handler* handler, int ready) {
    if ((ready & UAFD_READY_EVENT) != 0) {
        takeEvents(handler);
    }
    if ((ready & UAFD_READY_SOUND) != 0) {
        takeSound(handler);
    }
    if ((ready & UAFD_READY_BLOCK) != 0) {
        giveBlock(handler);
    }
}

void Session::takeSound(Handler* handler) {
    int16_t samples[UAFD_CHANNELS * kReadFrames];
    const int frames = companion.read(samples, kReadFrames);
    if (frames > 0) {
        handler->onSound(samples, frames);
    }
}

void Session::takeEvents(Handler* handler) {
    while (const auto event = companion.nextEvent()) {
        lastTold[event->type] = event->value;
        handler->onEvent(*event);
    }
}

void Session::giveBlock(Handler* handler) {
    int16_t samples[UAFD_CHANNELS * UAFD_BLOCK_FRAMES] = {};
    handler->fillBlock(samples);
    if (companion.write(samples) == 0) {
        handler->onBlockTaken();
    }
}

// In a session without events, a message that the daemon accepts shows that it runs; after that the
// session does not look again.
bool Session::findDaemon() {
    if ((openParts & UAFD_EVENTS) != 0) {
        return isOn(UAFD_DAEMON_STATE);
    }
    return wasReached = wasReached || companion.sync() == 0;
}

// A daemon that starts waits until both FIFOs have been opened, so the one that this app does not
// need is opened for a moment.
void Session::waitForDaemon() {
    if (findDaemon()) {
        ticksWithoutDaemon = 0;
        return;
    }
    const unsigned others = UAFD_SOUND & ~openParts;
    if ((openParts & UAFD_SOUND) != 0 && others != 0) {
        uafd::Companion().open(optionsFor(others));
    }
    if (++ticksWithoutDaemon == kPatientTicks) {
        failed("waiting", uafd_companion_error_text(-ECONNREFUSED));
    }
}

}  // namespace uafd
