// SPDX-License-Identifier: Apache-2.0
#include "tests/model/replayed_daemon.h"

#include <cerrno>
#include <cstring>
#include <map>

#include <gtest/gtest.h>

#include "ipc/app_paths.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_ssrs.h"

namespace uafd {
namespace {

constexpr int kFifoFd = 1000;  // plus the channel's number
constexpr int kChannels = 2;

// The channel of the calling worker or buffer thread.
int ownChannel() {
    return Stage::part().back() - '0';
}

std::string numbered(int channel, const std::string& text) {
    return std::to_string(channel) + " " + text;
}

int channelOf(const std::string& path) {
    return path == kFifoRxPath ? 1 : 0;
}

template <typename Channel>
std::string viewOf(const Channel& channel) {
    return std::to_string(channel.state) + std::to_string(channel.stopDelayCnt) +
           std::to_string(channel.joinPending) +
           std::to_string(channel.pcmName.load() != nullptr && channel.fifoName.load() != nullptr) +
           std::to_string(channel.pcmHandle != nullptr) + std::to_string(channel.fifo.isOpen());
}

}  // namespace

ReplayedDaemon::ReplayedDaemon() {
    hookLocks();
    hookThreads();
    hookFifos();
    hookCard();
    fake_log::onLine() = [this](const fake_log::Line& line) {
        if (line.tag == "UAFCH") {
            stage.effect("log " + line.text.substr(0, line.text.find('\n')));
        }
    };
    fake_ipc::onMessage() = [this](const fake_ipc::Message& message) {
        const int channel = message.first == 1 ? 1 : 0;
        stage.effect("message " + numbered(channel, std::to_string(message.second)));
    };
    pthread_t id;
    stage.create(&id, "loop", [this] { runLoop(); });
}

// ---- Threads and locks -------------------------------------------------------------------------

void ReplayedDaemon::runLoop() {
    const std::map<std::string, uint32_t> types{
        {"bindEvent-0", 0}, {"unbindEvent-0", 1}, {"activeEvent-1", 1}, {"activeEvent-0", 0}};
    for (;;) {
        // The script's answer is the channel, then the event and its data.
        const std::string event = stage.call("event");
        const int channel = event[0] - '0';
        const uint32_t number = types.at(event.substr(2));
        const bool isActivation = event.find("active") != std::string::npos;
        loop.handle(
            isActivation ? UacUserMsgT{channel == 0 ? 3U : 2U, number} : UacUserMsgT{number, 0},
            sizeof(UacUserMsgT));
    }
}

// The other mutexes are the FIFOs', which are held only for a moment.
void ReplayedDaemon::hookLocks() {
    locks.onCall = [this](const std::string& entry) {
        if (entry == "lock ssrs") {
            frameBufferFails = stage.call("0 ssrs") == "failed";
        } else if (entry.rfind("lock ", 0) == 0) {
            stage.call(numbered(entry.back() - '0', "lock"));
        } else if (entry.rfind("trylock ", 0) == 0) {
            const bool isBusy = stage.call("0 trylock") == "busy";
            EXPECT_EQ(isBusy, locks.isHeld("0"));
            locks.answer(entry, isBusy ? EBUSY : 0);
        }
    };
    fake_ssrs::hooks().SSRS_Write = [this](SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
        return frameBufferFails ? SSRS_BAD_PARAMETER : fake_ssrs::real::SSRS_Write(ctx, data, n);
    };
    fake_ssrs::hooks().SSRS_Read = [this](SSRS_Ctx* ctx, int16_t* out) {
        return frameBufferFails ? SSRS_NULL_DATA : fake_ssrs::real::SSRS_Read(ctx, out);
    };
}

int ReplayedDaemon::create(FakeThreads::Thread& thread) {
    const bool isWorker = thread.entry == &UafCh::ChThread;
    const int channel = isWorker && thread.argument == static_cast<UafCh*>(&sink) ? 1 : 0;
    const std::string kind = isWorker ? "worker" : "buffer";
    if (stage.call(numbered(channel, "create-" + kind)) == "refused") {
        return EAGAIN;
    }
    return stage.create(&thread.id, kind + " " + std::to_string(channel), [=] {
        stage.call(numbered(channel, "begin"));
        thread.run();
        stage.call(numbered(channel, "end"));
    });
}

void ReplayedDaemon::hookThreads() {
    threads.install();
    threads.onCreate = [this](FakeThreads::Thread& thread) { return create(thread); };
    threads.onJoin = [this](pthread_t id) {
        const std::string part = stage.partOf(id);
        stage.call(numbered(part.back() - '0', "join-" + part.substr(0, part.find(' '))));
        EXPECT_TRUE(stage.join(id)) << part << " has not ended";
    };
    threads.onSignal = [this](pthread_t id) {
        signalled = stage.partOf(id).back() - '0';
        stage.effect(numbered(signalled, "signal"));
        return 0;
    };
    threads.onSleep = [this](long) {
        // The event loop pauses only after it has signalled a thread.
        stage.call(numbered(Stage::part() == "loop" ? signalled : ownChannel(), "sleep"));
    };
    threads.onYield = [this] {
        // The event loop also yields, just before its sleep: that belongs to the sleep's step.
        if (Stage::part() == "buffer 0") {
            stage.call("0 yield");
        }
    };
    fake_sys::hooks().sigaction = [](auto...) { return 0; };
}

// ---- The world ---------------------------------------------------------------------------------

std::string ReplayedDaemon::waitForApp(int channel, const std::string& call) {
    stage.call(numbered(channel, "enter"));
    return stage.call(numbered(channel, call));
}

// The result of a read or write of a block of `size` bytes.
ssize_t ReplayedDaemon::transfer(int channel, const std::string& call, size_t size) {
    const std::string answer = waitForApp(channel, call);
    errno = answer == "interrupted" ? EINTR : channel == 0 ? EIO : EPIPE;
    return answer == "done" ? static_cast<ssize_t>(size) : answer == "end" ? 0 : -1;
}

void ReplayedDaemon::hookFifos() {
    auto& hooks = fake_sys::hooks();
    hooks.open = [this](const char* path, int) {
        const int channel = channelOf(path);
        const std::string answer = waitForApp(channel, "open");
        errno = answer == "interrupted" ? EINTR : ENOENT;
        return answer == "done" ? kFifoFd + channel : -1;
    };
    hooks.close = [](int fd) {
        return fd >= kFifoFd && fd < kFifoFd + kChannels ? 0 : fake_sys::real::close(fd);
    };
    hooks.fcntl = [](int, int, long) { return 4096; };
    hooks.read = [this](int, void*, size_t size) { return transfer(0, "read", size); };
    hooks.write = [this](int, const void*, size_t size) { return transfer(1, "write", size); };
    hooks.fopen = [](const char*, const char*) {
        errno = ENOENT;
        return nullptr;
    };
}

void ReplayedDaemon::openPcm(int channel) {
    const std::string answer = stage.call(numbered(channel, "pcm"));
    if (answer == "refused") {
        fake_alsa::answerAt("snd_pcm_open", 1, -ENODEV);
    } else if (answer == "broken") {
        fake_alsa::answerAt("snd_pcm_sw_params", 1, -EIO);
    }
}

void ReplayedDaemon::hookCard() {
    auto& hooks = fake_alsa::hooks();
    hooks.before = [this](const std::string& call) {
        if (call.find("snd_pcm_open(") == 0) {
            openPcm(call.find("CAPTURE") != std::string::npos ? 1 : 0);
        } else if (call == "snd_card_next(-1)") {
            const bool isThere = stage.call("0 card") == "found";
            fake_alsa::setCards(isThere ? std::vector<fake_alsa::Card>{{1, "Vexa_Gadget"}}
                                        : std::vector<fake_alsa::Card>{});
        }
    };
    hooks.wait = [this](snd_pcm_t*, int) {
        const std::string answer = stage.call(numbered(ownChannel(), "wait"));
        if (answer == "broken") {
            fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
        }
        return answer == "ready" ? 1 : answer == "timeout" ? 0 : -EPIPE;
    };
    hooks.state = [](snd_pcm_t*) { return SND_PCM_STATE_RUNNING; };
    hooks.availUpdate = [](snd_pcm_t*) { return snd_pcm_sframes_t{0}; };
    hooks.readi = [](snd_pcm_t*, int16_t*, snd_pcm_uframes_t frames) {
        return static_cast<snd_pcm_sframes_t>(frames);
    };
    hooks.writei = [](snd_pcm_t*, const int16_t*, snd_pcm_uframes_t frames) {
        return static_cast<snd_pcm_sframes_t>(frames);
    };
}

std::string ReplayedDaemon::view(int channel) {
    const std::string existing =
        std::to_string(stage.threads("worker " + std::to_string(channel))) +
        std::to_string(stage.threads("buffer " + std::to_string(channel)));
    return (channel == 0 ? viewOf(source) : viewOf(sink)) + existing;
}

}  // namespace uafd
