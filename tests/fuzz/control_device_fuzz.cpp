// SPDX-License-Identifier: Apache-2.0
// What the gadget control device may deliver: records of any content, reads of any length and with
// any error, while cards come and go, starts fail and workers run. The line about each event with
// the loop's counters, the calls of the channels and every message must be those of a simple model.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/event_loop.h"
#include "tests/fuzz/faked.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_threads.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 24;

namespace {

using fake_ipc::Message;
using fake_log::kDaemonLog;
using fuzz::require;
using fuzz::requireSame;

constexpr int kControlFd = 5;
constexpr int kStopDelay = 4;
constexpr useconds_t kFailedReadPauseUs = 10000;

std::string printable(const char* text) {
    return text != nullptr ? text : "";
}

// A channel without its stream: `startResult` decides whether a start succeeds.
template <typename Channel>
class BareChannel : public Channel {
  public:
    int uafStart() override {
        starts.push_back(printable(this->fifoName.load()) + ' ' + printable(this->pcmName.load()));
        return startResult;
    }
    int uafStop() override {
        stops++;
        return 0;
    }
    int currentState() const { return this->state.load(); }

    int startResult = 0;
    std::vector<std::string> starts;  // the names at that time
    int stops = 0;
};

// What one channel should do.
struct ChannelModel {
    bool isOn() const { return state != 3; }

    // The gadget asks for on or off.
    void update(bool on, int startResult, std::vector<Message>& messages) {
        if (names.empty()) {
            return;
        }
        if (!on) {
            passesLeft = state == 1 ? kStopDelay : passesLeft;
            state = state == 1 ? 2 : state;
            return;
        }
        if (state == 3) {
            starts.push_back(names);
            if (startResult < 0) {
                return;
            }
            messages.emplace_back(type, 1);
        }
        state = 1;
    }

    // The worker checks once whether to go on.
    bool pass(std::vector<Message>& messages) {
        if (state != 2 || --passesLeft > 0) {
            return true;
        }
        stops++;
        state = 3;
        messages.emplace_back(type, 0);
        return false;
    }

    uint32_t type;
    std::string fifo;
    std::string names = {};
    int state = 3;  // as the channel numbers them: on, stopping, off
    int passesLeft = 0;
    std::vector<std::string> starts = {};
    int stops = 0;
};

class DeviceRun {
  public:
    explicit DeviceRun(fuzz::Input& input) : input(input) {
        fake_sys::hooks().read = [this](int, void* data, size_t room) {
            require(room == sizeof record, "a record is read");
            return next(static_cast<char*>(data));
        };
        threads.install();
        fake_sys::hooks().usleep = [this](useconds_t us) {
            pauseUs += us;
            return 0;
        };
        fake_alsa::stopRecording();
    }

    void run() {
        loop.run([this] { events.run(kControlFd); });
        require(src.starts == mic.starts && snk.starts == speaker.starts,
                "the channels are started as they should, with their names");
        require(src.stops == mic.stops && snk.stops == speaker.stops, "and stopped");
        require(fake_ipc::messages() == messages, "the app gets the right messages");
        fake_ipc::clear();
    }

  private:
    // Changes the world, then makes one read.
    ssize_t next(char* data) {
        checkLine();
        require(src.currentState() == mic.state && snk.currentState() == speaker.state,
                "the channels are in the model's states");
        require(pauseUs == expectedPauseUs, "a read that brings nothing is paused for, no other");
        if (input.empty()) {
            loop.leave();
        }
        const uint8_t how = input.byte();
        changeWorld(how >> 4);
        fake_log::clear();
        const ssize_t size = deliver(how & 15, data);
        pauseUs = 0;
        expectedPauseUs = size <= 0 ? kFailedReadPauseUs : 0;
        expectLine(static_cast<int>(size));
        handle();
        return size;
    }

    // Most values change nothing.
    void changeWorld(int change) {
        switch (change) {
            case 8:
            case 9:
            case 10:
                card = change == 8 ? -1 : change == 9 ? 1 : 31;
                break;
            case 11:
            case 12:
                src.startResult = snk.startResult = change == 11 ? 0 : -19;
                break;
            case 13:
            case 14:
            case 15:
                runWorkers(change == 15 ? 4 : change - 12);
                break;
            default:
                break;
        }
    }

    void runWorkers(int passes) {
        for (int i = 0; i < passes; i++) {
            if (mic.isOn()) {
                require(src.isRunning() == mic.pass(messages), "the microphone's worker goes on");
            }
            if (speaker.isOn()) {
                require(snk.isRunning() == speaker.pass(messages), "the speaker's worker goes on");
            }
        }
    }

    // Delivers up to 8 raw bytes, an error, or a whole record in short form.
    ssize_t deliver(int how, char* data) {
        if (how == 9) {
            errno = fuzz::errorOf(input.byte());
            return -1;
        }
        std::string bytes;
        if (how < 9) {
            bytes = input.text(static_cast<size_t>(how));
        } else {
            const uint32_t type = input.byte() % 9;
            const uint32_t value = how < 13 ? input.byte() & 1u : input.number(4);
            bytes.append(reinterpret_cast<const char*>(&type), sizeof type);
            bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
        }
        memcpy(data, bytes.data(), bytes.size());
        memcpy(reinterpret_cast<char*>(record), bytes.data(), bytes.size());
        return static_cast<ssize_t>(bytes.size());
    }

    void expectLine(int size) {
        char line[200];
        snprintf(line, sizeof line,
                 "read msg: type=%u, data=0x%08x, size=%d; "
                 "state={cardnum:%d bindcnt=%d bindbad:%d}\n",
                 record[0], record[1], size, bound, bindcnt, bindbad);
        expectedLine = line;
    }

    void checkLine() {
        const fuzz::Lines lines = fake_log::take();
        requireSame(expectedLine, lines.empty() ? "" : lines[0].text, "an event has its line");
        const fake_log::Line invalid =
            kDaemonLog.error("invalid msg: type=" + std::to_string(record[0]) + "\n");
        const bool reported = std::find(lines.begin(), lines.end(), invalid) != lines.end();
        require(reported == (!lines.empty() && record[0] > 7), "an unknown type is reported");
    }

    void handle() {
        const uint32_t data = record[1];
        const uint32_t volume = data & 0xFFFF;
        const uint32_t mute = data != 0 ? 1 : 0;
        switch (record[0]) {
            case 0:
                bind();
                bindcnt += bound != -1 ? 1 : 0;
                break;
            case 1:
                unbind();
                break;
            case 2:
                activate(speaker, snk.startResult);
                break;
            case 3:
                activate(mic, src.startResult);
                break;
            case 4:
            case 5:
                messages.emplace_back(record[0] - 1, volume);
                break;
            case 6:
            case 7:
                messages.emplace_back(record[0] - 1, mute);
                break;
            default:
                break;
        }
    }

    void bind() {
        fake_alsa::setCards({{std::max(card, 0), card < 0 ? "rockchip" : "Vexa_Gadget.0"}});
        bound = card;
        if (bound != -1) {
            const std::string pcm = " hw:" + std::to_string(bound);
            mic.names = mic.fifo + pcm;
            speaker.names = speaker.fifo + pcm;
        }
    }

    void unbind() {
        if (bound != -1) {
            bindcnt--;
            mic.update(false, 0, messages);
            speaker.update(false, 0, messages);
            mic.names.clear();
            speaker.names.clear();
        }
        bound = -1;
    }

    void activate(ChannelModel& channel, int startResult) {
        const bool on = record[1] != 0;
        if (bound == -1 && on) {
            bindbad++;
            bind();
        }
        channel.update(on, startResult, messages);
    }

    const fuzz::Faked faked;
    FakeThreads threads;
    fuzz::Input& input;
    BareChannel<UafSrc> src;
    BareChannel<UafSnk> snk;
    EventLoop events{src, snk};
    fuzz::EndlessLoop loop;
    // The world, and what the daemon should know about it.
    int card = 1;
    int bound = -1;
    int bindcnt = 0;
    int bindbad = 0;
    uint32_t record[2] = {0xFFFFFFFF, 0};
    std::string expectedLine;
    useconds_t pauseUs = 0;  // since the last read
    useconds_t expectedPauseUs = 0;
    ChannelModel mic{2, "/tmp/usbAudioFifoTx"};
    ChannelModel speaker{1, "/tmp/usbAudioFifoRx"};
    std::vector<Message> messages;
};

}  // namespace

void fuzz::execute(Input& input) {
    DeviceRun(input).run();
}

}  // namespace uafd
