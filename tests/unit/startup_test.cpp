// SPDX-License-Identifier: Apache-2.0
#include "daemon/startup.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon/uac_user.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

using fake_log::kDaemonLog;
using fake_log::Line;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kRx[] = "/tmp/usbAudioFifoRx";
constexpr char kTx[] = "/tmp/usbAudioFifoTx";

Line missing(const std::string& path) {
    return kDaemonLog.debug(path + " is not available yet. Waiting for creation...");
}

// ---- The standard streams ----------------------------------------------------------------------

// Hands out descriptors as the kernel does: the lowest free number.
class StandardStreamsTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().fcntl = [this](int fd, int command, long) {
            EXPECT_EQ(F_GETFD, command);
            errno = EBADF;
            return isOpen.at(static_cast<size_t>(fd)) ? 0 : -1;
        };
        fake_sys::hooks().open = [this](const char* path, int flags) {
            EXPECT_STREQ("/dev/null", path);
            EXPECT_EQ(O_RDWR, flags);
            ++opens;
            const auto free = std::find(isOpen.begin(), isOpen.end(), false);
            errno = ENOENT;
            if (!hasNullDevice || free == isOpen.end()) {
                return -1;
            }
            *free = true;
            return static_cast<int>(free - isOpen.begin());
        };
    }

    std::vector<bool> isOpen = std::vector<bool>(4);  // the fourth must not be touched
    bool hasNullDevice = true;
    int opens = 0;
};

// Otherwise a device or a FIFO that is opened later would get the number, and the log's lines.
TEST_F(StandardStreamsTest, EachThatIsClosedIsOccupiedAndNothingElse) {
    for (int given = 0; given < 8; ++given) {
        SCOPED_TRACE(given);
        opens = 0;
        isOpen = {(given & 1) != 0, (given & 2) != 0, (given & 4) != 0, false};
        const auto closed = std::count(isOpen.begin(), isOpen.end() - 1, false);
        occupyStandardStreams();
        EXPECT_THAT(isOpen, ElementsAre(true, true, true, false));
        EXPECT_EQ(closed, opens);
    }
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(StandardStreamsTest, WithoutANullDeviceTheDaemonGoesOn) {
    hasNullDevice = false;
    occupyStandardStreams();
    EXPECT_THAT(isOpen, Each(false));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ---- The app's FIFOs ---------------------------------------------------------------------------

class WaitForFifosTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().open = [this](const char* path, int flags) {
            opens.push_back(std::string(path) + ' ' + std::to_string(flags));
            int& failures = path == std::string(kRx) ? rxFailures : txFailures;
            errno = openErrno;
            return failures-- > 0 ? -1 : path == std::string(kRx) ? rxFd : 12;
        };
        fake_sys::hooks().close = [this](int fd) {
            closed.push_back(fd);
            return 0;
        };
        fake_sys::hooks().usleep = [this](useconds_t us) {
            pausesUs.push_back(us);
            linesAtPause.push_back(fake_log::lines().size());
            return 0;
        };
    }

    int rxFailures = 0;
    int txFailures = 0;
    int rxFd = 11;
    int openErrno = ENOENT;
    std::vector<std::string> opens;
    std::vector<int> closed;
    std::vector<useconds_t> pausesUs;
    std::vector<size_t> linesAtPause;
};

TEST_F(WaitForFifosTest, BothThereAreProbedOnce) {
    waitForFifos();
    EXPECT_THAT(opens, ElementsAre(kRx + (" " + std::to_string(O_WRONLY)),
                                   kTx + (" " + std::to_string(O_RDONLY))));
    EXPECT_THAT(closed, ElementsAre(11, 12));
    EXPECT_THAT(pausesUs, IsEmpty());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kDaemonLog.debug(
                                       "Fifos observed for /tmp/usbAudioFifoRx after 0 attempts, "
                                       "/tmp/usbAudioFifoTx after 0 attempts")));
}

TEST_F(WaitForFifosTest, EachIsRetriedEvery200MsWithItsOwnCount) {
    rxFailures = 2;
    txFailures = 1;
    waitForFifos();
    EXPECT_THAT(opens, SizeIs(5));
    EXPECT_THAT(pausesUs, ElementsAre(200000, 200000, 200000));
    EXPECT_THAT(linesAtPause, ElementsAre(1, 1, 2));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(missing(kRx), missing(kTx),
                    kDaemonLog.debug("Fifos observed for /tmp/usbAudioFifoRx after 2 attempts, "
                                     "/tmp/usbAudioFifoTx after 1 attempts")));
}

// That makes one line in five minutes, however long the app stays away.
TEST_F(WaitForFifosTest, FirstAndEvery1500thFailureIsLogged) {
    rxFailures = 1500;
    txFailures = 3001;
    waitForFifos();
    EXPECT_THAT(pausesUs, SizeIs(4501));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(missing(kRx), missing(kTx), missing(kTx), missing(kTx),
                    kDaemonLog.debug("Fifos observed for /tmp/usbAudioFifoRx after 1500 attempts, "
                                     "/tmp/usbAudioFifoTx after 3001 attempts")));
    EXPECT_EQ(1u, linesAtPause[1499]);
    EXPECT_EQ(2u, linesAtPause[1500]);
    EXPECT_EQ(2u, linesAtPause[1500 + 1499]);
    EXPECT_EQ(3u, linesAtPause[1500 + 1500]);
}

TEST_F(WaitForFifosTest, AnyErrorIsRetried) {
    for (const int error : {EACCES, EINTR, EMFILE, ENXIO, EISDIR}) {
        openErrno = error;
        rxFailures = 1;
        txFailures = 1;
        fake_log::clear();
        waitForFifos();
        EXPECT_THAT(fake_log::lines(), SizeIs(3));
    }
}

TEST_F(WaitForFifosTest, DescriptorZeroIsOpen) {
    rxFd = 0;
    waitForFifos();
    EXPECT_THAT(closed, ElementsAre(0, 12));
}

// ---- The gadget control device -----------------------------------------------------------------

class GadgetControlTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().mknod = [this](const char* path, mode_t mode, dev_t device) {
            calls.push_back(std::string("mknod ") + path);
            EXPECT_EQ(static_cast<mode_t>(020770), mode);
            EXPECT_EQ(static_cast<dev_t>(0x7A00), device);
            errno = mknodErrno;
            return mknodErrno == 0 ? 0 : -1;
        };
        fake_sys::hooks().open = [this](const char* path, int flags) {
            calls.push_back(std::string("open ") + path);
            EXPECT_EQ(O_RDONLY, flags);
            errno = ENXIO;
            return openResult;
        };
    }

    int mknodErrno = 0;
    int openResult = 5;
    std::vector<std::string> calls;
};

TEST_F(GadgetControlTest, NodeIsCreatedAndOpened) {
    EXPECT_EQ(5, openGadgetControl());
    EXPECT_THAT(calls, ElementsAre("mknod /dev/uac_user", "open /dev/uac_user"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(GadgetControlTest, ExistingNodeIsTakenAsItIs) {
    mknodErrno = EEXIST;
    EXPECT_EQ(5, openGadgetControl());
    EXPECT_THAT(calls, ElementsAre("mknod /dev/uac_user", "open /dev/uac_user"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(GadgetControlTest, NodeThatCannotBeCreatedIsNotOpened) {
    mknodErrno = EPERM;
    EXPECT_EQ(-1, openGadgetControl());
    EXPECT_THAT(calls, ElementsAre("mknod /dev/uac_user"));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kDaemonLog.error("mknod failed, rc=-1, errno=1\n")));
}

TEST_F(GadgetControlTest, NodeThatDoesNotOpenIsReported) {
    openResult = -1;
    EXPECT_EQ(-1, openGadgetControl());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kDaemonLog.error("open /dev/uac_user failed, rc=-1, errno=6\n")));
}

TEST_F(GadgetControlTest, InitialStateIsAskedForWithoutAnArgument) {
    int asked = 0;
    fake_sys::hooks().ioctl = [&](int fd, unsigned long request, void* argument) {
        ++asked;
        EXPECT_EQ(5, fd);
        EXPECT_EQ(0x8004F503u, request);
        EXPECT_EQ(nullptr, argument);
        return 0;
    };
    requestInitialState(5);
    EXPECT_EQ(1, asked);
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(GadgetControlTest, RefusedRequestIsOnlyLogged) {
    for (const int result : {-1, 3}) {
        fake_log::clear();
        fake_sys::hooks().ioctl = [&](int, unsigned long, void*) {
            errno = ENOTTY;
            return result;
        };
        requestInitialState(5);
        EXPECT_THAT(
            fake_log::lines(),
            ElementsAre(kDaemonLog.debug("failed F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, rc=" +
                                         std::to_string(result) + ", error=25\n")));
    }
}

// These numbers are the driver's.
TEST(UacUserTest, RequestsAndEventsHaveTheDriversCodes) {
    EXPECT_EQ(0x4002F501u, F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME);
    EXPECT_EQ(0x4004F502u, F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE);
    EXPECT_EQ(0x8004F503u, F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC);
    EXPECT_EQ(0, F_UAC_VEXA_USER_EVT_BIND);
    EXPECT_EQ(1, F_UAC_VEXA_USER_EVT_UNBIND);
    EXPECT_EQ(2, F_UAC_VEXA_USER_EVT_SPK_ACTIVE);
    EXPECT_EQ(3, F_UAC_VEXA_USER_EVT_MIC_ACTIVE);
    EXPECT_EQ(4, F_UAC_VEXA_USER_EVT_SPK_VOLUME);
    EXPECT_EQ(5, F_UAC_VEXA_USER_EVT_MIC_VOLUME);
    EXPECT_EQ(6, F_UAC_VEXA_USER_EVT_SPK_MUTE);
    EXPECT_EQ(7, F_UAC_VEXA_USER_EVT_MIC_MUTE);
    EXPECT_EQ(8u, sizeof(UacUserMsgT));
}

}  // namespace
}  // namespace uafd
