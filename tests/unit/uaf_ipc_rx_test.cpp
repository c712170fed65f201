// SPDX-License-Identifier: Apache-2.0
// The receive thread of the app IPC service: every message of the app, odd datagrams and every way
// to end.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "ipc/uaf_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/ipc_service.h"

namespace uafd {
namespace {

using fake_log::kIpcLog;
using Lines = std::vector<fake_log::Line>;
using Message = IpcService::Message;
using Messages = std::vector<Message>;

constexpr unsigned long kSetSpkVolume = 0x4002F501;
constexpr unsigned long kSetSpkMute = 0x4004F502;
constexpr int kGadgetFd = 77;

struct Request {
    unsigned long code;
    uint32_t data;
    bool operator==(const Request& other) const { return code == other.code && data == other.data; }
};

// One answer of the app's socket.
struct Receive {
    std::string bytes;
    ssize_t result;
    int error;
};

Receive datagram(uint32_t type, uint32_t data) {
    return {ipc_service::bytesOf(type, data), 8, 0};
}

const Receive kEnd = {"", -1, EBADF};
const fake_log::Line kStartLine = kIpcLog.debug("rxLoop: starting\n");
const fake_log::Line kEndLine = kIpcLog.error("receive error: <-1:9>\n");

class UafIpcRxTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(service.start());
        fake_sys::hooks().open = [this](const char* path, int flags) {
            EXPECT_STREQ("/dev/uac_user", path);
            EXPECT_EQ(O_WRONLY, flags);
            opens++;
            return kGadgetFd;
        };
        fake_sys::hooks().ioctl = [this](int fd, unsigned long code, void* data) {
            EXPECT_EQ(kGadgetFd, fd);
            requests.push_back({code, *static_cast<uint32_t*>(data)});
            errno = requestError;
            return requestResult;
        };
    }

    void TearDown() override {
        service.take();
        fake_sys::Test::TearDown();
    }

    // Runs the receive thread on these answers, followed by an error that ends it.
    void receive(std::vector<Receive> answers) {
        answers.push_back(kEnd);
        size_t next = 0;
        fake_sys::hooks().recvfrom = [&](int fd, void* data, size_t size, int flags, sockaddr* from,
                                         socklen_t* fromLength) {
            EXPECT_EQ(IpcService::kRxSocket, fd);
            EXPECT_EQ(8U, size);
            EXPECT_EQ(0, flags);
            EXPECT_EQ(nullptr, from);
            EXPECT_EQ(nullptr, fromLength);
            EXPECT_EQ(std::string(8, '\0'), std::string(static_cast<char*>(data), 8));
            if (next == answers.size()) {
                ADD_FAILURE() << "received again after the end";
                pthread_exit(nullptr);
            }
            const Receive& answer = answers[next++];
            memcpy(data, answer.bytes.data(), answer.bytes.size());
            errno = answer.error;
            return answer.result;
        };
        service.runRx();
        received = next;
    }

    // The log between the receive loop's first and last line.
    Lines linesInside() { return ipc_service::linesBetween(kStartLine, kEndLine); }

    // The messages that the app gets for a sync-up.
    Messages syncUp() {
        service.take();
        receive({datagram(7, 0)});
        return service.take();
    }

    void setStates(uint32_t usb, uint32_t speaker, uint32_t microphone) {
        UafIpc::queueMsg({0, usb});
        UafIpc::queueMsg({1, speaker});
        UafIpc::queueMsg({2, microphone});
    }

    IpcService service;
    std::vector<Request> requests;
    int requestResult = 0;
    int requestError = 0;
    int opens = 0;
    size_t received = 0;
};

TEST_F(UafIpcRxTest, SyncUpBeforeAnyStateSaysDisconnectedAlone) {
    EXPECT_EQ((Messages{{0, 0}}), syncUp());
}

TEST_F(UafIpcRxTest, SyncUpIsLoggedAndItsDataIgnored) {
    setStates(1, 0, 0);
    service.take();
    fake_log::clear();
    receive({datagram(7, 0xFFFFFFFF)});
    EXPECT_EQ((Lines{kIpcLog.debug("app request init state sync up")}), linesInside());
    EXPECT_EQ((Messages{{0, 1}, {1, 0}, {2, 0}}), service.take());
    EXPECT_TRUE(requests.empty());
}

TEST_F(UafIpcRxTest, SpeakerVolumeIsTheLowHalfWhateverTheUpperHolds) {
    const std::pair<uint32_t, const char*> table[] = {{0x0000FFFF, "-1"},     {0x1234FFFF, "-1"},
                                                      {0x00000000, "0"},      {0x00007FFF, "32767"},
                                                      {0xFFFF8000, "-32768"}, {0x0001FF80, "-128"}};
    for (const auto& [data, volume] : table) {
        fake_log::clear();
        requests.clear();
        receive({datagram(3, data)});
        EXPECT_EQ((Lines{kIpcLog.debug(std::string("got speaker volume msg: volume=") + volume)}),
                  linesInside());
        ASSERT_EQ(1U, requests.size());
        EXPECT_EQ(kSetSpkVolume, requests[0].code);
        int16_t driversView = 0;
        memcpy(&driversView, &requests[0].data, sizeof driversView);
        EXPECT_EQ(volume, std::to_string(driversView));
    }
}

TEST_F(UafIpcRxTest, SpeakerMuteIsPassedAsItIs) {
    for (const uint32_t mute : {0U, 1U, 7U, 0xFFFFFFFFU}) {
        fake_log::clear();
        requests.clear();
        receive({datagram(5, mute)});
        EXPECT_EQ(
            (Lines{kIpcLog.debug("got speaker volume mute msg: mute=" + std::to_string(mute))}),
            linesInside());
        EXPECT_EQ((std::vector<Request>{{kSetSpkMute, mute}}), requests);
    }
}

TEST_F(UafIpcRxTest, FailedRequestIsLoggedAndTheNextMessageHandled) {
    requestError = ENOTTY;
    for (const int result : {-1, 1}) {
        requestResult = result;
        fake_log::clear();
        receive({datagram(5, 1), datagram(3, 2)});
        const std::string failed = "rxLoop: ioctl failed: <" + std::to_string(result) + ":25>\n";
        EXPECT_EQ(
            (Lines{kIpcLog.debug("got speaker volume mute msg: mute=1"), kIpcLog.error(failed),
                   kIpcLog.debug("got speaker volume msg: volume=2"), kIpcLog.error(failed)}),
            linesInside());
    }
    EXPECT_EQ(4U, requests.size());
}

TEST_F(UafIpcRxTest, EveryOtherTypeIsUnknownAndChangesNothing) {
    setStates(1, 1, 1);
    service.take();
    const std::pair<uint32_t, const char*> table[] = {
        {0, "0"}, {1, "1"}, {2, "2"}, {4, "4"}, {6, "6"}, {8, "8"}, {0xFFFFFFFF, "4294967295"}};
    for (const auto& [type, number] : table) {
        fake_log::clear();
        receive({datagram(type, 0)});
        EXPECT_EQ((Lines{kIpcLog.error(std::string("got unknown msg: type=") + number +
                                       ", msg: 0x00000000")}),
                  linesInside());
    }
    fake_log::clear();
    receive({datagram(9, 0xAB12CD)});
    EXPECT_EQ((Lines{kIpcLog.error("got unknown msg: type=9, msg: 0x00AB12CD")}), linesInside());
    EXPECT_EQ(Messages{}, service.take());
    EXPECT_TRUE(requests.empty());
    EXPECT_EQ((Messages{{0, 1}, {1, 1}, {2, 1}}), syncUp());
}

TEST_F(UafIpcRxTest, ShortDatagramIsRejectedAndTheLoopGoesOn) {
    receive({{std::string(4, 'x'), 4, 0}, {std::string(7, 'x'), 7, 0}, datagram(5, 1)});
    EXPECT_EQ(
        (Lines{kIpcLog.error("unexpected msg size: 4\n"), kIpcLog.error("unexpected msg size: 7\n"),
               kIpcLog.debug("got speaker volume mute msg: mute=1")}),
        linesInside());
}

TEST_F(UafIpcRxTest, ReceiveThatWouldBlockIsTriedAgain) {
    receive({{"", -1, EAGAIN}, {"", -1, EAGAIN}, datagram(5, 1)});
    EXPECT_EQ((Lines{kIpcLog.debug("got speaker volume mute msg: mute=1")}), linesInside());
    EXPECT_EQ(4U, received);
}

TEST_F(UafIpcRxTest, AnyOtherReceiveErrorEndsTheThread) {
    receive({{"", -1, EINTR}, datagram(5, 1)});
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("receive error: <-1:4>\n")}), fake_log::lines());
    EXPECT_EQ(1U, received);
    EXPECT_EQ(1, opens);
}

TEST_F(UafIpcRxTest, MissingControlDeviceEndsTheThread) {
    fake_sys::hooks().open = fake_sys::failing(ENOENT);
    fake_sys::hooks().recvfrom = [](auto...) -> ssize_t {
        ADD_FAILURE() << "received without the control device";
        return -1;
    };
    service.runRx();
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("rxLoop: opening /dev/uac_user failed: <-1:2>\n")}),
              fake_log::lines());
}

TEST_F(UafIpcRxTest, LoopEndsOnceTheServiceNoLongerRuns) {
    int calls = 0;
    fake_sys::hooks().recvfrom = [&](int, void* data, size_t, int, sockaddr*, socklen_t*) {
        if (++calls > 1)
            return ssize_t{-1};
        fake_sys::hooks().socket = [](int, int, int) { return -1; };
        EXPECT_FALSE(service.startAgain());
        memcpy(data, datagram(5, 1).bytes.data(), 8);
        return ssize_t{8};
    };
    service.runRx();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(1U, requests.size());
}

TEST_F(UafIpcRxTest, LoopIsNotEnteredOnceTheServiceNoLongerRuns) {
    fake_sys::hooks().open = [&](const char*, int) {
        fake_sys::hooks().socket = [](int, int, int) { return -1; };
        EXPECT_FALSE(service.startAgain());
        fake_log::clear();
        return kGadgetFd;
    };
    fake_sys::hooks().recvfrom = [](auto...) -> ssize_t {
        ADD_FAILURE() << "received while stopped";
        return -1;
    };
    service.runRx();
    EXPECT_EQ(Lines{}, fake_log::lines());
}

// Real datagrams show what the socket itself does with odd lengths.
TEST_F(UafIpcRxTest, LongDatagramCountsAsItsFirstEightBytesAndAnEmptyOneEndsTheThread) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
    const std::string lengthened = datagram(5, 1).bytes + "more";
    ASSERT_EQ(12, send(ends[1], lengthened.data(), 12, 0));
    ASSERT_EQ(4, send(ends[1], lengthened.data(), 4, 0));
    ASSERT_EQ(8, send(ends[1], datagram(3, 2).bytes.data(), 8, 0));
    ASSERT_EQ(0, send(ends[1], "", 0, 0));
    fake_sys::hooks().recvfrom = [&](int, void* data, size_t size, int flags, sockaddr* from,
                                     socklen_t* fromLength) {
        errno = ECHILD;
        return fake_sys::real::recvfrom(ends[0], data, size, flags, from, fromLength);
    };
    service.runRx();
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ((Lines{kStartLine, kIpcLog.debug("got speaker volume mute msg: mute=1"),
                     kIpcLog.error("unexpected msg size: 4\n"),
                     kIpcLog.debug("got speaker volume msg: volume=2"),
                     kIpcLog.error("receive error: <0:10>\n")}),
              fake_log::lines());
}

// Receiving an empty datagram sets no errno, so the line shows that of an earlier call.
TEST_F(UafIpcRxTest, EmptyDatagramShowsTheErrnoThatItFinds) {
    requestError = ENOTTY;
    int calls = 0;
    fake_sys::hooks().recvfrom = [&](int, void* data, size_t, int, sockaddr*, socklen_t*) {
        if (++calls > 1)
            return ssize_t{0};
        memcpy(data, datagram(5, 1).bytes.data(), 8);
        return ssize_t{8};
    };
    service.runRx();
    EXPECT_EQ(kIpcLog.error("receive error: <0:25>\n"), fake_log::lines().back());
}

TEST_F(UafIpcRxTest, EmptyDatagramBehindAStaleEagainDoesNotEndTheThread) {
    receive({{"", 0, EAGAIN}, datagram(5, 1)});
    EXPECT_EQ((Lines{kIpcLog.debug("got speaker volume mute msg: mute=1")}), linesInside());
}

}  // namespace
}  // namespace uafd
