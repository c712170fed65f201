// SPDX-License-Identifier: Apache-2.0
// What the companion app may do to the IPC service: it sends datagrams of every length and content,
// and its socket takes messages in pieces, not at all or too late. Receives fail, and the rest of
// the daemon queues states and other messages, up to a full queue. Gadget requests, sent bytes,
// pauses and the log must be those of a simple model.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "ipc/uaf_ipc.h"
#include "tests/fuzz/faked.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/ipc_service.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 48;

namespace {

using fake_log::kIpcLog;
using fuzz::require;
using Message = IpcService::Message;

constexpr int kGadgetFd = 77;
constexpr unsigned long kSetSpkVolume = 0x4002F501;
constexpr unsigned long kSetSpkMute = 0x4004F502;
constexpr size_t kQueueMax = 100;
constexpr int kRetriesMax = 20;
constexpr int kPauseS = 5;

// Started only once; every run gives it a new queue.
IpcService& service() {
    static auto* const only = [] {
        auto* const started = new IpcService;
        require(started->start(), "the service starts");
        fake_sys::reset();
        fake_log::clear();
        return started;
    }();
    return *only;
}

std::string hex(uint32_t number) {
    char text[11];
    snprintf(text, sizeof text, "0x%08X", number);
    return text;
}

std::string pairOf(const Message& message) {
    return "<" + hex(message.first) + ":" + hex(message.second) + ">";
}

class ServiceRun {
  public:
    explicit ServiceRun(fuzz::Input& input) : input(input) {
        IpcService::renewQueue();
        fake_sys::Hooks& hooks = fake_sys::hooks();
        hooks.open = [](const char*, int) { return kGadgetFd; };
        hooks.recvfrom = [this](int, void* buf, size_t room, int, sockaddr*, socklen_t*) {
            return receive(static_cast<char*>(buf), room);
        };
        hooks.ioctl = [this](int, unsigned long code, void* data) { return request(code, data); };
        hooks.sendto = [this](int, const void* data, size_t n, int, const sockaddr*, socklen_t) {
            return send(static_cast<const char*>(data), n);
        };
        hooks.nanosleep = [this](const timespec* wanted, timespec* left) {
            return pause(*wanted, *left);
        };
        hooks.pthread_cond_wait = [](pthread_cond_t*, pthread_mutex_t*) { return EINVAL; };
    }

    // The receive thread ends on most errors; this runs it again while there is input.
    void run() {
        while (!input.empty()) {
            expected.push_back(kIpcLog.debug("rxLoop: starting\n"));
            service().runRx();
            require(pendingRequests.empty(), "every request is made");
        }
        input = fuzz::Input(nullptr, 0);
        drain();
        fuzz::requireLog(expected);
    }

  private:
    // Does what happens before the app's next datagram, then returns that datagram.
    ssize_t receive(char* buf, size_t room) {
        require(room == 8, "a record is received");
        for (;;) {
            const uint8_t step = input.byte();
            const uint8_t argument = step >> 3;
            switch (step & 7) {
                case 0:
                    return input.empty() ? fail(EBADF) : deliver(input.text(argument % 13), buf);
                case 1:
                    return fail(fuzz::errorOf(argument));
                case 2:
                    queueFromDaemon(argument);
                    break;
                case 3:
                    drain();
                    break;
                default:
                    return deliver(record(argument), buf);
            }
        }
    }

    // A record as the app should send it, of a type from 0 to 15 or higher.
    std::string record(uint8_t argument) {
        const uint32_t type = argument < 16 ? argument : argument < 24 ? 7 : input.number(4);
        const uint32_t data = input.number(argument % 2 == 0 ? 2 : 4);
        return ipc_service::bytesOf(type, data);
    }

    ssize_t fail(int error) {
        errno = error;
        if (error != EAGAIN) {
            expected.push_back(
                kIpcLog.error("receive error: <-1:" + std::to_string(error) + ">\n"));
        }
        return -1;
    }

    ssize_t deliver(const std::string& datagram, char* buf) {
        const size_t n = std::min<size_t>(datagram.size(), 8);
        memcpy(buf, datagram.data(), n);
        errno = fuzz::errorOf(static_cast<uint8_t>(datagram.size()));
        if (n == 0 && errno != EAGAIN) {
            expected.push_back(kIpcLog.error("receive error: <0:" + std::to_string(errno) + ">\n"));
        } else if (n > 0 && n < 8) {
            expected.push_back(kIpcLog.error("unexpected msg size: " + std::to_string(n) + "\n"));
        } else if (n == 8) {
            Message message;
            memcpy(&message.first, buf, 4);
            memcpy(&message.second, buf + 4, 4);
            handle(message);
        }
        return static_cast<ssize_t>(n);
    }

    void handle(const Message& message) {
        const uint32_t data = message.second;
        switch (message.first) {
            case 3:
                expected.push_back(kIpcLog.debug(
                    "got speaker volume msg: volume=" +
                    std::to_string(static_cast<int>(static_cast<int16_t>(data & 0xFFFF)))));
                expectRequest(kSetSpkVolume, data);
                break;
            case 5:
                expected.push_back(
                    kIpcLog.debug("got speaker volume mute msg: mute=" + std::to_string(data)));
                expectRequest(kSetSpkMute, data);
                break;
            case 7:
                expected.push_back(kIpcLog.debug("app request init state sync up"));
                expectSync();
                break;
            default:
                expected.push_back(
                    kIpcLog.error("got unknown msg: type=" + std::to_string(message.first) +
                                  ", msg: " + hex(data)));
        }
    }

    void expectSync() {
        if (states[0] == 0) {
            append({0, 0});
            return;
        }
        append({0, 1});
        append({1, states[1]});
        append({2, states[2]});
    }

    // The value decides whether the driver will refuse it.
    void expectRequest(unsigned long code, uint32_t data) {
        pendingRequests.emplace_back(code, data);
        if (data % 3 == 1) {
            expected.push_back(kIpcLog.error("rxLoop: ioctl failed: <-1:25>\n"));
        }
    }

    int request(unsigned long code, void* data) {
        require(!pendingRequests.empty(), "each request follows a message");
        uint32_t value = 0;
        memcpy(&value, data, sizeof value);
        require(pendingRequests.front() == std::make_pair(code, value),
                "the request is the message's");
        pendingRequests.pop_front();
        errno = ENOTTY;
        return value % 3 == 1 ? -1 : 0;
    }

    // ---- Sending -------------------------------------------------------------------------------

    void queueFromDaemon(uint8_t argument) {
        const int times = argument < 24 ? 1 : input.byte() % 128;
        const uint32_t type = argument % 8;
        for (int i = 0; i < times; i++) {
            queue({type, input.byte()});
        }
    }

    void queue(const Message& message) {
        if (message.first < 3 && message.second < 2) {
            states[message.first] = message.second;
        }
        append(message);
        UafIpc::queueMsg({message.first, message.second});
    }

    void append(const Message& message) {
        if (waiting.size() < kQueueMax) {
            waiting.push_back(message);
            return;
        }
        expected.push_back(kIpcLog.error("queueMsg: overwriting msg: " + pairOf(waiting.back()) +
                                         " -> " + pairOf(message) + "\n"));
        waiting.back() = message;
    }

    // Runs the transmit thread until no message waits for the app.
    void drain() {
        expected.push_back(kIpcLog.debug("txLoop: starting\n"));
        service().runTx();
        require(waiting.empty(), "every message is sent or dropped");
        require(sent == 0 && retries == 0 && attempts == 0, "no message is left half-way");
        expected.push_back(kIpcLog.error("txLoop: conditional wait failed: 22\n"));
    }

    // One attempt to send the oldest message: how the app's socket reacts.
    ssize_t send(const char* data, size_t n) {
        require(!waiting.empty(), "only what waits is sent");
        require(pauseLeftS == 0, "a retry comes after its pause");
        const Message& message = waiting.front();
        const std::string record = ipc_service::bytesOf(message.first, message.second);
        require(std::string(data, n) == record.substr(sent), "the rest of the record is sent");
        attempts++;
        const uint8_t answer = input.byte();
        if (answer % 4 == 1) {
            return retry(answer < 128 ? ENOENT : 0);
        }
        if (answer % 4 == 2 && answer >= 128) {
            return drop(fuzz::errorOf(answer >> 2));
        }
        const size_t taken = answer % 4 == 3 ? std::min<size_t>(n, 1 + answer / 4 % 7) : n;
        sent += taken;
        if (sent == record.size()) {
            finish();
        }
        return static_cast<ssize_t>(taken);
    }

    ssize_t retry(int error) {
        retries++;
        pauseLeftS = error == ENOENT ? kPauseS : 0;
        errno = error;
        if (retries == kRetriesMax) {
            finish();
        }
        return error == ENOENT ? -1 : 0;
    }

    ssize_t drop(int error) {
        const Message message = waiting.front();
        expected.push_back(kIpcLog.error("sendMsg failed: error: <-1:" + std::to_string(error) +
                                         ">; bytes: " + std::to_string(sent) + "; attempts: <" +
                                         std::to_string(attempts) + ":" + std::to_string(retries) +
                                         ">; data: " + pairOf(message) + "\n"));
        finish();
        errno = error;
        return -1;
    }

    void finish() {
        waiting.pop_front();
        sent = 0;
        attempts = retries = 0;
    }

    // A pause that a signal may interrupt after any of its seconds.
    int pause(const timespec& wanted, timespec& left) {
        require(wanted.tv_sec == pauseLeftS && wanted.tv_nsec == 0, "the pause lasts five seconds");
        const int slept = input.byte() % 16;
        if (slept == 0 || slept >= pauseLeftS) {
            pauseLeftS = 0;
            return 0;
        }
        pauseLeftS -= slept;
        left = {pauseLeftS, 0};
        errno = EINTR;
        return -1;
    }

    fuzz::Input& input;
    fuzz::Lines expected;
    std::deque<std::pair<unsigned long, uint32_t>> pendingRequests;
    std::deque<Message> waiting;
    uint32_t states[3] = {};  // of USB, speaker and microphone, as last queued
    size_t sent = 0;          // bytes of the oldest message
    int attempts = 0;
    int retries = 0;
    time_t pauseLeftS = 0;
};

}  // namespace

void fuzz::execute(Input& input) {
    service();
    const fuzz::Faked faked;
    ServiceRun(input).run();
}

}  // namespace uafd
