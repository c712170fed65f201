#include "companion/tool/session.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr int kAskingBlocks = 50;   // from one sync-up to the next, while none is answered
constexpr int kPatientAskings = 3;  // a daemon that waited for the FIFOs has no socket at first
constexpr int kReadFrames = 4096;

volatile sig_atomic_t interrupted = 0;

void interrupt(int /*signal*/) {
    interrupted = 1;
}

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

const char* reasonOf(int result) {
    switch (-result) {
        case EBUSY:
            return "another app has it";
        case EEXIST:
            return "something that is no FIFO has a FIFO's name";
        case ECONNREFUSED:
            return "no daemon runs";
        default:
            return strerror(-result);
    }
}

bool Session::open(unsigned parts) {
    const int error = companion_.open(parts, directory_.empty() ? nullptr : directory_.c_str());
    if (error != 0) {
        fprintf(stderr, "uafd-companion: opening: %s\n", reasonOf(error));
        return false;
    }
    // Without sound, whose beat lets the loop look at it, the signal had better end the process.
    if ((parts & UAFD_SOUND) != 0) {
        catchInterrupts();
    }
    blocksToAsking_ = 0;
    askingsToPatience_ = (parts & UAFD_SOUND) != 0 ? kPatientAskings : 1;
    askForStates();
    return true;
}

bool Session::run(Handler* handler) {
    while (!handler->isDone()) {
        const int ready = interrupted != 0 ? -EINTR : companion_.wait();
        if (ready == -EINTR && interrupted != 0) {
            return false;
        }
        if (ready < 0 && ready != -EINTR) {
            fprintf(stderr, "uafd-companion: waiting: %s\n", reasonOf(ready));
            return false;
        }
        step(handler, ready > 0 ? ready : 0);
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
    int16_t samples[kBlockSamples] = {};
    handler->fillBlock(samples);
    if (companion_.write(samples) == 0) {
        handler->onBlockTaken();
    }
}

void Session::askForStates() {
    if (told(UAFD_USB_STATE) || --blocksToAsking_ >= 0) {
        return;
    }
    blocksToAsking_ = kAskingBlocks;
    const int error = companion_.sync();
    if (error != 0 && --askingsToPatience_ == 0) {
        fprintf(stderr, "uafd-companion: still waiting: %s\n", reasonOf(error));
    }
}
