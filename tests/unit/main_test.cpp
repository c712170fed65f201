// SPDX-License-Identifier: Apache-2.0
// The entry point, compiled into this program under the name uafdMain. Stand-ins replace the app's
// service and the cable monitor: here it matters only when they are built, started and destroyed.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cable/cable_mon.h"
#include "daemon/uac_user.h"
#include "ipc/uaf_ipc.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"

int uafdMain();

namespace uafd {
namespace {

using fake_log::kDaemonLog;
using fake_log::Line;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

constexpr int kControlFd = 9;

std::vector<std::string> events;
bool ipcStarts = true;
bool cableStarts = true;

// Thrown by a read, as the event loop never ends.
struct EndOfScript {};

// The standard streams come first: a constructor's log line may open the log.
const std::vector<std::string> kBuilt{"fcntl 0", "fcntl 1", "fcntl 2",  "mutex",
                                      "mutex",   "mutex",   "CableMon", "UafIpc"};
const std::vector<std::string> kDestroyed{"~UafIpc", "~CableMon"};
const std::vector<std::string> kFifosProbed{"open /tmp/usbAudioFifoRx", "open /tmp/usbAudioFifoTx",
                                            "close 7", "close 8"};

std::vector<std::string> joined(std::initializer_list<std::vector<std::string>> lists) {
    std::vector<std::string> all;
    for (const auto& list : lists) {
        all.insert(all.end(), list.begin(), list.end());
    }
    return all;
}

class MainTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        events.clear();
        ipcStarts = true;
        cableStarts = true;
        auto& hooks = fake_sys::hooks();
        hooks.pthread_mutex_init = [](pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) {
            events.emplace_back("mutex");
            return fake_sys::real::pthread_mutex_init(mutex, attr);
        };
        hooks.fcntl = [](int fd, int, long) {
            events.push_back("fcntl " + std::to_string(fd));
            return 0;
        };
        hooks.open = [this](const char* path, int) {
            linesAtFirstOpen = linesAtFirstOpen < 0 ? static_cast<int>(fake_log::lines().size())
                                                    : linesAtFirstOpen;
            events.push_back(std::string("open ") + path);
            errno = ENXIO;
            return path == std::string("/dev/uac_user")         ? controlFd
                   : path == std::string("/tmp/usbAudioFifoRx") ? 7
                                                                : 8;
        };
        hooks.close = [](int fd) {
            events.push_back("close " + std::to_string(fd));
            return 0;
        };
        hooks.mknod = [this](const char*, mode_t, dev_t) {
            events.emplace_back("mknod");
            errno = EPERM;
            return mknodResult;
        };
        hooks.ioctl = [this](int fd, unsigned long, void*) {
            events.push_back("ioctl " + std::to_string(fd));
            errno = ENOTTY;
            return ioctlResult;
        };
        hooks.read = [this](int fd, void* buffer, size_t) -> ssize_t {
            events.push_back("read " + std::to_string(fd));
            if (records.empty()) {
                throw EndOfScript();
            }
            memcpy(buffer, &records.front(), sizeof records.front());
            records.erase(records.begin());
            return sizeof records.front();
        };
        threads.install();
    }

    FakeThreads threads;
    int mknodResult = 0;
    int controlFd = kControlFd;
    int ioctlResult = 0;
    int linesAtFirstOpen = -1;
    std::vector<UacUserMsgT> records;  // what the driver reports
};

TEST_F(MainTest, BuildsConnectsAndRuns) {
    EXPECT_THROW(uafdMain(), EndOfScript);
    EXPECT_THAT(events, ElementsAreArray(joined({kBuilt,
                                                 kFifosProbed,
                                                 {"mknod", "open /dev/uac_user", "UafIpc::start",
                                                  "CableMon::start", "ioctl 9", "read 9"},
                                                 kDestroyed})));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(
            kDaemonLog.debug("use /tmp/usbAudioFifoRx and /tmp/usbAudioFifoTx\n"),
            kDaemonLog.debug(
                "Fifos observed for /tmp/usbAudioFifoRx after 0 attempts, /tmp/usbAudioFifoTx "
                "after 0 attempts")));
    EXPECT_EQ(1, linesAtFirstOpen);
}

TEST_F(MainTest, NodeThatCannotBeCreatedEndsTheProcess) {
    mknodResult = -1;
    EXPECT_EQ(-1, uafdMain());
    EXPECT_THAT(events, ElementsAreArray(joined({kBuilt, kFifosProbed, {"mknod"}, kDestroyed})));
    EXPECT_EQ((kDaemonLog.error("mknod failed, rc=-1, errno=1\n")), fake_log::lines().back());
}

TEST_F(MainTest, ControlDeviceThatDoesNotOpenEndsTheProcess) {
    controlFd = -1;
    EXPECT_EQ(-1, uafdMain());
    EXPECT_THAT(events, ElementsAreArray(joined(
                            {kBuilt, kFifosProbed, {"mknod", "open /dev/uac_user"}, kDestroyed})));
    EXPECT_EQ((kDaemonLog.error("open /dev/uac_user failed, rc=-1, errno=6\n")),
              fake_log::lines().back());
}

TEST_F(MainTest, ServiceThatDoesNotStartEndsTheProcess) {
    ipcStarts = false;
    EXPECT_EQ(-1, uafdMain());
    EXPECT_THAT(
        events,
        ElementsAreArray(joined(
            {kBuilt, kFifosProbed, {"mknod", "open /dev/uac_user", "UafIpc::start"}, kDestroyed})));
    EXPECT_EQ((kDaemonLog.debug("failed to initialized IPC ... exiting\n")),
              fake_log::lines().back());
}

// Sound needs neither the monitor nor the initial state.
TEST_F(MainTest, RunsWithoutTheCableMonitorAndTheInitialState) {
    cableStarts = false;
    ioctlResult = -1;
    EXPECT_THROW(uafdMain(), EndOfScript);
    EXPECT_THAT(events, Contains("read 9"));
    EXPECT_EQ((kDaemonLog.debug("failed F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, rc=-1, error=25\n")),
              fake_log::lines().back());
}

TEST_F(MainTest, ControlDescriptorZeroIsOpen) {
    controlFd = 0;
    EXPECT_THROW(uafdMain(), EndOfScript);
    EXPECT_THAT(events, Contains("read 0"));
}

TEST_F(MainTest, HostsSpeakerStartsTheSinkOnTheGadgetCard) {
    fake_alsa::setCards({{0, "rockchip"}, {1, "Vexa_Gadget"}});
    records = {{0, 0}, {2, 1}, {3, 1}};
    EXPECT_THROW(uafdMain(), EndOfScript);
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_open"),
                ElementsAre("snd_pcm_open(hw:1, CAPTURE, 0)", "snd_pcm_open(hw:1, PLAYBACK, 0)"));
    EXPECT_THAT(fake_ipc::messages(),
                ElementsAre(fake_ipc::Message{1, 1}, fake_ipc::Message{2, 1}));
}

}  // namespace

UafIpc::UafIpc() {
    events.emplace_back("UafIpc");
}

UafIpc::~UafIpc() {
    events.emplace_back("~UafIpc");
}

bool UafIpc::start() {
    events.emplace_back("UafIpc::start");
    return ipcStarts;
}

CableMon::CableMon() {
    events.emplace_back("CableMon");
}

CableMon::~CableMon() {
    events.emplace_back("~CableMon");
}

bool CableMon::start() {
    events.emplace_back("CableMon::start");
    return cableStarts;
}

}  // namespace uafd
