#include "companion/tool/session.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>

#include "companion/tool/command.h"

namespace {

constexpr int kAskingTicks = 50;    // from one sync-up to the next, while none is answered
constexpr int kPatientAskings = 3;  // a daemon that waited for the FIFOs has no socket at first
constexpr int kReadFrames = 4096;

volatile sig_atomic_t interrupted = 0;

void interrupt(int /*signal*/) {
    interrupted = 1;
}

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = interrupt;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
}

}  // namespace

int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

int Session::tryOpen(unsigned parts) {
    return companion_.open(parts, directoryOption.orNull());
}

bool Session::open(unsigned parts) {
    const int error = tryOpen(parts);
    if (error != 0) {
        failed("opening", uafd_companion_error_text(error));
        return false;
    }
    catchInterrupts();
    ticksToAsking_ = 0;
    askingsToPatience_ = kPatientAskings;
    askForStates();
    return true;
}

void Session::forgetStates() {
    for (const uafd_event_type type : {UAFD_USB_STATE, UAFD_SPEAKER_STATE, UAFD_MIC_STATE}) {
        told_[type].reset();
    }
}

bool Session::wasInterrupted() {
    return interrupted != 0;
}

bool Session::run(Handler* handler, double seconds) {
    const int64_t end = seconds > 0 ? nowNs() + static_cast<int64_t>(seconds * 1e9) : INT64_MAX;
    while (!handler->isDone() && !wasInterrupted() && nowNs() < end) {
        const int ready = wait();
        if (ready < 0 && ready != -EINTR) {
            failed("waiting", uafd_companion_error_text(ready));
            return false;
        }
        step(handler, ready > 0 ? ready : 0);
    }
    return true;
}

// A tick's time at most.
int Session::wait() {
    if (companion_.micFd() >= 0) {
        return companion_.wait();
    }
    pollfd events = {companion_.eventsFd(), POLLIN, 0};
    return poll(&events, 1, 10) > 0 ? UAFD_READY_EVENT | UAFD_READY_BLOCK : UAFD_READY_BLOCK;
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
        askForStates();
        handler->onTick();
    }
}

void Session::takeSound(Handler* handler) {
    int16_t samples[UAFD_CHANNELS * kReadFrames];
    const int frames = companion_.read(samples, kReadFrames);
    if (frames > 0) {
        handler->onSound(samples, frames);
    }
}

void Session::takeEvents(Handler* handler) {
    while (const auto event = companion_.nextEvent()) {
        told_[event->type] = event->value;
        handler->onEvent(*event);
    }
}

void Session::giveBlock(Handler* handler) {
    int16_t samples[UAFD_CHANNELS * UAFD_BLOCK_FRAMES] = {};
    handler->fillBlock(samples);
    if (companion_.write(samples) == 0) {
        handler->onBlockTaken();
    }
}

void Session::askForStates() {
    if (told(UAFD_USB_STATE) || --ticksToAsking_ >= 0) {
        return;
    }
    ticksToAsking_ = kAskingTicks;
    const int error = companion_.sync();
    if (error != 0 && --askingsToPatience_ == 0) {
        failed("still waiting", uafd_companion_error_text(error));
    }
}
