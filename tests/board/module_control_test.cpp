// SPDX-License-Identifier: Apache-2.0
// The simulated hardware itself: the gadget control device, the gadget's and the cable's state, and
// the host's commands.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "daemon/uac_user.h"
#include "tests/board/control.h"
#include "tests/board/module_case.h"
#include "tests/board/uevents.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kQueueRecords = 16384;
constexpr char kStatePath[] = "/sys/devices/virtual/android_usb/android0/state";
constexpr char kCablePath[] =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";

class Module : public ModuleCase {
  protected:
    void SetUp() override {
        ModuleCase::SetUp();
        Control().records();
    }
};

TEST_F(Module, QueuesARecordForEveryChangeByTheHost) {
    const struct {
        const char* text;
        Record record;
    } rows[] = {
        {"bind", {F_UAC_VEXA_USER_EVT_BIND, 0}},
        {"unbind", {F_UAC_VEXA_USER_EVT_UNBIND, 0}},
        {"speaker on", {F_UAC_VEXA_USER_EVT_SPK_ACTIVE, 1}},
        {"speaker off", {F_UAC_VEXA_USER_EVT_SPK_ACTIVE, 0}},
        {"mic on", {F_UAC_VEXA_USER_EVT_MIC_ACTIVE, 1}},
        {"mic off", {F_UAC_VEXA_USER_EVT_MIC_ACTIVE, 0}},
        {"volume speaker -1280", {F_UAC_VEXA_USER_EVT_SPK_VOLUME, 0xfb00}},
        {"volume mic 256", {F_UAC_VEXA_USER_EVT_MIC_VOLUME, 256}},
        {"mute speaker 1", {F_UAC_VEXA_USER_EVT_SPK_MUTE, 1}},
        {"mute mic 0", {F_UAC_VEXA_USER_EVT_MIC_MUTE, 0}},
        {"record 8 0x1ff80", {8, 0x1ff80}},
        {"record 0xffffffff 4294967295\n", {0xffffffff, 0xffffffff}},
    };
    const Control control;
    for (const auto& row : rows) {
        EXPECT_EQ(command(row.text), 0) << row.text;
        EXPECT_THAT(control.records(), ElementsAre(row.record)) << row.text;
    }
}

TEST_F(Module, AnswersInitSyncWithTheStateInsteadOfWhatWasQueued) {
    const Control control;
    command("volume speaker -5");
    command("volume mic 7");
    command("mute mic 1");
    command("mic on");
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), 0);
    EXPECT_THAT(control.records(), ElementsAre(Record{0, 0}, Record{4, 0xfffb}, Record{5, 7},
                                               Record{6, 0}, Record{7, 1}, Record{3, 1}));
    command("speaker on");
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), 0);
    EXPECT_THAT(control.records(),
                ElementsAre(Record{0, 0}, Record{4, 0xfffb}, Record{5, 7}, Record{6, 0},
                            Record{7, 1}, Record{2, 1}, Record{3, 1}));
    command("unbind");
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), 0);
    EXPECT_THAT(control.records(), ElementsAre(Record{1, 0}));
}

TEST_F(Module, TakesVolumeAndMuteFromTheDaemon) {
    const Control control(O_WRONLY);
    Notes log(*this);
    uint32_t data = 0x1ff80;
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &data), 0);
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, &data), 0);
    EXPECT_EQ(counter("speaker.volume"), -128);
    EXPECT_EQ(counter("speaker.mute"), 1);
    EXPECT_THAT(Control().records(), IsEmpty());
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, nullptr), EFAULT);
    EXPECT_EQ(control.request(0x5401, nullptr), ENOTTY);
    EXPECT_THAT(log.texts(),
                ElementsAre("uac SET_SPK_VOLUME -128 0", "uac SET_SPK_MUTE 130944 0", "uac open r",
                            "uac close r", "uac SET_SPK_MUTE 0 -14", "uac ioctl 0x00005401 -25"));
}

TEST_F(Module, FailsRequestsOnDemand) {
    const Control control;
    uint32_t data = 1;
    command("fault init_sync 5");
    command("fault set_volume 19 after=1 times=2");
    command("fault set_mute 1");
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), EIO);
    EXPECT_THAT(control.records(), IsEmpty());
    for (const int expected : {0, ENODEV, ENODEV, 0}) {
        EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &data), expected);
    }
    EXPECT_EQ(control.request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, &data), EPERM);
    EXPECT_EQ(counter("speaker.mute"), 0);
}

TEST_F(Module, GivesEachRecordToOneOfItsReaders) {
    const Control first;
    const Control second;
    command("record 4 1 2");
    UacUserMsgT a{};
    UacUserMsgT b{};
    EXPECT_EQ(read(second.fd(), &a, sizeof a), 8);
    EXPECT_EQ(read(first.fd(), &b, sizeof b), 8);
    EXPECT_EQ(a.data, 1U);
    EXPECT_EQ(b.data, 2U);
    EXPECT_EQ(read(first.fd(), &b, sizeof b), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(read(first.fd(), &b, sizeof b - 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Module, BlocksAReaderUntilARecordOrASignalComes) {
    const Control control(O_RDONLY);
    pollfd poller{control.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 0), 0);

    struct sigaction quiet {};
    quiet.sa_handler = [](int) {};
    sigaction(SIGUSR1, &quiet, nullptr);
    const pthread_t reader = pthread_self();
    std::thread other([this, reader] {
        sleepFor(5 * kMs);
        pthread_kill(reader, SIGUSR1);
        sleepFor(5 * kMs);
        command("record 6 1");
    });
    UacUserMsgT record{};
    EXPECT_EQ(read(control.fd(), &record, sizeof record), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(poll(&poller, 1, -1), 1);
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 8);
    EXPECT_EQ(Record(record.type, record.data), Record(6, 1));
    other.join();
}

TEST_F(Module, KeepsABurstInOrderAndCountsWhatDoesNotFit) {
    const Control control;
    const int64_t dropped = counter("records.dropped");
    EXPECT_EQ(command("record 4 0 " + std::to_string(kQueueRecords)), 0);
    EXPECT_EQ(command("record 4 0 3"), ENOSPC);
    EXPECT_EQ(counter("records.dropped"), dropped + 3);
    EXPECT_EQ(counter("records.waiting"), kQueueRecords);
    const std::vector<Record> records = control.records();
    ASSERT_EQ(records.size(), kQueueRecords);
    for (size_t i = 0; i < kQueueRecords; i++) {
        ASSERT_EQ(records[i].second, i);
    }
}

TEST_F(Module, SpoilsReadsOnDemand) {
    const Control control;
    UacUserMsgT record{0xaaaaaaaa, 0xaaaaaaaa};
    command("record 6 1 3");
    command("fault read 5 after=1");
    command("fault read_short 3 after=1");
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 8);
    EXPECT_EQ(read(control.fd(), &record, sizeof record), -1);
    EXPECT_EQ(errno, EIO);
    record.type = 0xaaaaaaaa;
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 3);
    EXPECT_EQ(record.type, 0xaa000006);
    command("fault read 0 times=2");
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 0);
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 0);
    EXPECT_EQ(read(control.fd(), &record, sizeof record), 8);
    EXPECT_EQ(record.data, 3U);
}

TEST_F(Module, SpoilsAReadThatAlreadyWaits) {
    const Control control(O_RDONLY);
    std::thread other([this] {
        sleepFor(5 * kMs);
        command("fault read 19");
    });
    UacUserMsgT record{};
    EXPECT_EQ(read(control.fd(), &record, sizeof record), -1);
    EXPECT_EQ(errno, ENODEV);
    other.join();
}

constexpr char kChange[] =
    "change@/devices/virtual/android_usb/android0 ACTION=change "
    "DEVPATH=/devices/virtual/android_usb/android0 SUBSYSTEM=android_usb";

TEST_F(Module, ShowsTheUsbStateInAFileAndAUevent) {
    UeventListener uevents;
    EXPECT_EQ(command("usb_state DISCONNECTED"), 0);
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    EXPECT_THAT(uevents.ofSubsystem("android_usb"),
                ElementsAre(std::string(kChange) + " USB_STATE=DISCONNECTED"));
    EXPECT_EQ(command("usb_state CONFIGURED quiet"), 0);
    EXPECT_EQ(contents(kStatePath), "CONFIGURED\n");
    EXPECT_THAT(uevents.ofSubsystem("android_usb"), IsEmpty());
    EXPECT_EQ(command("usb_state " + std::string(32, 'X')), EINVAL);
}

TEST_F(Module, SendsUeventsOfAnyKind) {
    UeventListener uevents;
    EXPECT_EQ(command("uevent change"), 0);
    EXPECT_EQ(command("uevent add USB_STATE=CONFIGURED A=1"), 0);
    EXPECT_EQ(command("foreign change USB_STATE=CONFIGURED"), 0);
    EXPECT_EQ(uevents.next(), kChange);
    EXPECT_EQ(uevents.next(),
              "add@/devices/virtual/android_usb/android0 ACTION=add "
              "DEVPATH=/devices/virtual/android_usb/android0 SUBSYSTEM=android_usb "
              "USB_STATE=CONFIGURED A=1");
    EXPECT_EQ(uevents.next(),
              "change@/devices/platform/ff2c0000.syscon ACTION=change "
              "DEVPATH=/devices/platform/ff2c0000.syscon SUBSYSTEM=platform "
              "USB_STATE=CONFIGURED MODALIAS=platform:ff2c0000.syscon");
    EXPECT_EQ(uevents.next(), "");
    EXPECT_EQ(command("uevent explode"), EINVAL);
}

TEST_F(Module, PullsAndPlugsTheCable) {
    command("speaker on");
    Notes log(*this);
    EXPECT_EQ(command("unplug"), 0);
    EXPECT_EQ(contents(kCablePath), "0\n");
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    EXPECT_EQ(command("plug"), 0);
    EXPECT_EQ(contents(kCablePath), "1\n");
    EXPECT_EQ(contents(kStatePath), "CONFIGURED\n");
    EXPECT_THAT(log.texts(), ElementsAre("cable 0", "usb_state DISCONNECTED",
                                         "uac record type=2 data=0x00000000", "cable 1",
                                         "usb_state CONNECTED", "usb_state CONFIGURED"));
}

TEST_F(Module, ReenumeratesWithTheCableAndWithoutAFault) {
    const std::vector<std::string> restart = {"usb_state DISCONNECTED",
                                              "uac record type=1 data=0x00000000", "card remove",
                                              "card add 1", "uac record type=0 data=0x00000000"};
    std::vector<std::string> complete = restart;
    complete.insert(complete.end(), {"usb_state CONNECTED", "usb_state CONFIGURED"});
    command("fault enumerate 1");
    Notes log(*this);
    EXPECT_EQ(command("reenumerate"), 0);
    EXPECT_EQ(log.texts(), restart);
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    EXPECT_EQ(command("reenumerate"), 0);
    EXPECT_EQ(log.texts(), complete);
    command("cable 0");
    log.take();
    EXPECT_EQ(command("reenumerate"), 0);
    EXPECT_EQ(log.texts(), restart);
}

TEST_F(Module, RefusesWhatItDoesNotUnderstand) {
    std::istringstream refused(
        "|  |nonsense|bind now|bind 1 2|unbind now|card|card eject|card add x|"
        "card remove 1|speaker|speaker maybe|speaker on 1|volume both 1|"
        "volume mic loud|volume speaker 32768|volume speaker -32769|mute mic|"
        "mute mic 2|mute mic -1|record 1|record x 1|record 1 x|record 1 1 x|ppb fast|"
        "ppb 100000001|ppb -100000001|flush both|stall mic|stall mic 2|stall both 1|"
        "xrun mic 5|xrun mic at=x|suspend both|usb_state|usb_state A loudly|uevent|"
        "cable perhaps|cable 1 1|unplug now|plug now|reenumerate now|fault read|"
        "fault read x|fault read -1|fault nothing 1|fault read 5 often|"
        "fault read 5 after=x|fault read 5 times=x|fault clear all|"
        "fault clear read now|");
    for (std::string text; std::getline(refused, text, '|');) {
        EXPECT_EQ(command(text), EINVAL) << text;
    }
    EXPECT_EQ(command("log " + std::string(3997, 'x')), E2BIG);
    std::string words = "log";
    for (int i = 0; i < 40; ++i) {
        words += " x";
    }
    EXPECT_EQ(command(words), E2BIG);
}

TEST_F(Module, StampsItsLogAndTellsAReaderWhatItMissed) {
    Notes log(*this);
    const int64_t before = now();
    command("log here I am");
    const int64_t after = now();
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, "host log here I am");
    EXPECT_GE(lines[0].at, before);
    EXPECT_LE(lines[0].at, after);
    for (int i = 0; i < 16384 + 5; i++) {
        command("log");
    }
    const auto rest = log.take();
    ASSERT_EQ(rest.size(), 16384U + 1);
    EXPECT_EQ(rest[0].text, "lost 5");
}

TEST_F(Module, CanBeUnloadedAndLoadedUnboundAndUnplugged) {
    host.reset();  // holds its devices
    ASSERT_EQ(system("rmmod usb_board"), 0);
    EXPECT_FALSE(exists("/proc/usb_host"));
    ASSERT_EQ(system("modprobe usb_board bound=0 plugged=0 index=3"), 0);
    host.emplace();
    EXPECT_EQ(counter("card"), -1);
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    EXPECT_EQ(contents(kCablePath), "0\n");
    EXPECT_EQ(command("bind"), 0);
    EXPECT_EQ(counter("card"), 3);
    host.reset();
    ASSERT_EQ(system("rmmod usb_board"), 0);
    ASSERT_EQ(system("modprobe usb_board"), 0);
    host.emplace();
    EXPECT_EQ(counter("card"), 1);
    EXPECT_EQ(contents("/proc/asound/card0/id"), "rockchiprt5640c\n");
}

}  // namespace
}  // namespace uafd
