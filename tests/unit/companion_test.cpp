// SPDX-License-Identifier: Apache-2.0
// Opening when the daemon is there, comes later or never comes; waiting; and closing.
#include "tests/unit/companion_test.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

namespace uafd {
namespace {

using testing::Contains;
using testing::Not;

class CompanionOpenTest : public CompanionTest {
  protected:
    static struct stat statOf(const std::string& path) {
        struct stat found {};
        lstat(path.c_str(), &found);
        return found;
    }
    static int64_t openDescriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }
};

TEST_F(CompanionOpenTest, MakesTheFifosThatAreMissing) {
    ASSERT_EQ(0, open());
    EXPECT_TRUE(S_ISFIFO(statOf(daemon.path("FifoRx")).st_mode));
    EXPECT_TRUE(S_ISFIFO(statOf(daemon.path("FifoTx")).st_mode));
}

TEST_F(CompanionOpenTest, UsesTheFifosThatAreThere) {
    ASSERT_EQ(0, open());
    const ino_t rx = statOf(daemon.path("FifoRx")).st_ino;
    const ino_t tx = statOf(daemon.path("FifoTx")).st_ino;
    companion.close();
    ASSERT_EQ(0, open());
    EXPECT_EQ(rx, statOf(daemon.path("FifoRx")).st_ino);
    EXPECT_EQ(tx, statOf(daemon.path("FifoTx")).st_ino);
}

TEST_F(CompanionOpenTest, LetsADaemonThatComesLaterOpenAtOnce) {
    ASSERT_EQ(0, open());
    EXPECT_TRUE(daemon.openFifos());
}

TEST_F(CompanionOpenTest, LetsADaemonThatWaitsGoOn) {
    ASSERT_EQ(0, open());
    companion.close();
    std::future<void> opening = daemon.beginOpening();
    ASSERT_EQ(0, open());
    EXPECT_TRUE(daemon.finishOpening(std::move(opening)));
}

// This includes a daemon that has opened and closed its ends, as it does at its start.
TEST_F(CompanionOpenTest, LetsADaemonOpenAgainAndAgain) {
    ASSERT_EQ(0, open());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(daemon.openFifos());
        daemon.end();
    }
}

class NoFifo : public CompanionOpenTest, public testing::WithParamInterface<const char*> {};

TEST_P(NoFifo, IsRefused) {
    const int before = static_cast<int>(openDescriptors());
    const std::string path = daemon.path(GetParam());
    std::ofstream(path) << "sound";
    EXPECT_EQ(-EEXIST, open());
    EXPECT_FALSE(companion.isOpen());
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(-EEXIST, open());
    EXPECT_EQ(before, openDescriptors());
    std::filesystem::remove(path);
    EXPECT_EQ(0, open());
}

INSTANTIATE_TEST_SUITE_P(InPlaceOf, NoFifo, testing::Values("FifoRx", "FifoTx"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(CompanionOpenTest, SaysWhatIsWrongWithTheFolder) {
    EXPECT_EQ(-ENOENT, companion.open(UAFD_SOUND, "/nonexistent"));
    EXPECT_EQ(-ENOENT, companion.open(UAFD_EVENTS, "/nonexistent"));
    EXPECT_EQ(-ENAMETOOLONG, companion.open(0, std::string(100, 'd').c_str()));
    EXPECT_FALSE(companion.isOpen());
}

TEST_F(CompanionOpenTest, TakesOverASocketThatNobodyIsBoundTo) {
    openBesideDaemon();
    companion.close();
    EXPECT_TRUE(S_ISSOCK(statOf(daemon.path("UdsIpcRx")).st_mode));
    EXPECT_EQ(ECONNREFUSED, daemon.send(0, 1));
    ASSERT_EQ(0, open());
    EXPECT_EQ(0, daemon.send(0, 1));
    EXPECT_TRUE(companion.nextEvent());
}

// A daemon that finds no file there would hold its messages back for seconds.
TEST_F(CompanionOpenTest, NeverLeavesTheSocketsNameWithoutAFile) {
    std::vector<std::string> removed;
    fake_sys::hooks().unlink = [&](const char* path) {
        removed.push_back(path);
        return fake_sys::real::unlink(path);
    };
    ASSERT_EQ(0, open());
    companion.close();
    ASSERT_EQ(0, open());
    EXPECT_THAT(removed, Not(Contains(daemon.path("UdsIpcRx"))));
    EXPECT_FALSE(std::filesystem::exists(daemon.path("UdsIpcRx.new")));
}

TEST_F(CompanionOpenTest, LeavesTheSocketToTheAppThatHasIt) {
    openBesideDaemon(UAFD_EVENTS);
    uafd::Companion second;
    EXPECT_EQ(-EBUSY, second.open(UAFD_EVENTS, folder.path().c_str()));
    EXPECT_EQ(0, daemon.send(0, 1));
    EXPECT_TRUE(companion.nextEvent());
    EXPECT_EQ(0, second.open(UAFD_SOUND, folder.path().c_str()));
}

// A socket that is connected to an app belongs to that app alone.
TEST_F(CompanionOpenTest, LeavesTheSocketToAnAppThatIsConnected) {
    ASSERT_EQ(0, open());
    daemon.bindSocket();
    const std::string path = daemon.path("UdsIpcTx");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, connect(companion.eventsFd(), reinterpret_cast<const sockaddr*>(&address),
                         sizeof address));
    uafd::Companion second;
    EXPECT_EQ(-EBUSY, second.open(UAFD_EVENTS, folder.path().c_str()));
}

TEST_F(CompanionOpenTest, OpensAgainInPlaceOfWhatWasOpen) {
    openBesideDaemon();
    const int64_t before = openDescriptors();
    EXPECT_EQ(0, open());
    EXPECT_EQ(before, openDescriptors());
    EXPECT_EQ(0, daemon.send(0, 1));
    EXPECT_TRUE(companion.nextEvent());
}

TEST_F(CompanionOpenTest, OpensNothingButWhatIsAskedFor) {
    ASSERT_EQ(0, open(0));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    int16_t block[960] = {};
    uafd_event event{};
    EXPECT_EQ(-EBADF, companion.read(block, 1));
    EXPECT_EQ(-EBADF, companion.write(block));
    EXPECT_EQ(-EBADF, uafd_companion_next_event(companion.get(), &event));
    EXPECT_EQ(-1, companion.speakerFd());
    EXPECT_EQ(-1, companion.micFd());
    EXPECT_EQ(-1, companion.eventsFd());
    ASSERT_EQ(0, open(UAFD_SOUND));
    EXPECT_EQ(-1, companion.eventsFd());
    ASSERT_EQ(0, open(UAFD_EVENTS));
    EXPECT_EQ(-1, companion.speakerFd());
}

TEST_F(CompanionOpenTest, ClosesEverything) {
    const int64_t before = openDescriptors();
    ASSERT_EQ(0, open());
    EXPECT_EQ(before + 6, openDescriptors());
    companion.close();
    EXPECT_EQ(before, openDescriptors());
    uafd_companion_close(nullptr);
}

TEST_F(CompanionOpenTest, HandsBackWhatTheSystemRefuses) {
    const int64_t before = openDescriptors();
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.calloc = [](size_t, size_t) -> void* { return nullptr; };
    EXPECT_EQ(-ENOMEM, open());
    hooks.calloc = nullptr;
    hooks.socket = fake_sys::failing(EMFILE);
    EXPECT_EQ(-EMFILE, open());
    hooks.socket = nullptr;
    hooks.bind = fake_sys::failing(EACCES);
    EXPECT_EQ(-EACCES, open());
    hooks.bind = nullptr;
    for (const int good : {0, 1, 2, 3}) {  // how many opens succeed before one fails
        int left = good;
        hooks.open = [&left](const char* path, int flags) {
            errno = EACCES;
            return left-- > 0 ? fake_sys::real::open(path, flags) : -1;
        };
        EXPECT_EQ(-EACCES, open());
    }
    hooks.open = nullptr;
    std::filesystem::remove(daemon.path("UdsIpcRx"));
    std::filesystem::create_directory(daemon.path("UdsIpcRx"));
    EXPECT_EQ(-EISDIR, open());
    EXPECT_FALSE(std::filesystem::exists(daemon.path("UdsIpcRx.new")));
    EXPECT_EQ(before, openDescriptors());
}

}  // namespace
}  // namespace uafd
