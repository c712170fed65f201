// SPDX-License-Identifier: Apache-2.0
// What the library leaves in the file system: modes, groups, and the socket file of an app that
// takes no events; and that only one app at a time has each part.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <grp.h>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/unit/companion_test.h"

namespace uafd {
namespace {

using testing::IsEmpty;

constexpr const char* kNames[] = {"FifoRx", "FifoTx", "UdsIpcRx"};

class CompanionFilesTest : public CompanionTest {
  protected:
    void SetUp() override {
        savedUmask = umask(022);
        options.directory = folder.path().c_str();
    }
    void TearDown() override {
        umask(savedUmask);
        CompanionTest::TearDown();
    }
    struct stat statOf(const std::string& name) const {
        struct stat found {};
        EXPECT_EQ(lstat(daemon.path(name).c_str(), &found), 0) << name;
        return found;
    }
    mode_t modeOf(const std::string& name) const { return statOf(name).st_mode & 07777; }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(daemon.path(name));
    }
    // The names of the folder's files.
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            names.insert(entry.path().filename());
        }
        return names;
    }
    int openSecond(unsigned parts) { return second.open(parts, folder.path().c_str()); }
    // A group to which this user may give files: any, for root.
    static gid_t someGroup() { return geteuid() == 0 ? 12345 : getegid(); }

    uafd_options options = UAFD_OPTIONS_INIT;
    uafd::Companion second;

  private:
    mode_t savedUmask = 0;
};

// ---- Modes and groups --------------------------------------------------------------------------

TEST_F(CompanionFilesTest, LetTheirGroupInWhateverTheUmask) {
    for (const mode_t mask : {0077U, 0777U, 0U}) {
        umask(mask);
        ASSERT_EQ(open(), 0);
        for (const char* name : kNames) {
            EXPECT_EQ(modeOf(name), 0660U) << name << " under " << mask;
            std::filesystem::remove(daemon.path(name));
        }
        companion.close();
    }
}

TEST_F(CompanionFilesTest, HaveTheModeThatIsAskedFor) {
    options.mode = 0606;
    ASSERT_EQ(companion.open(options), 0);
    for (const char* name : kNames) {
        EXPECT_EQ(modeOf(name), 0606U) << name;
    }
}

TEST_F(CompanionFilesTest, HaveTheGroupThatIsAskedForByNumber) {
    const std::string number = std::to_string(someGroup());
    options.group = number.c_str();
    ASSERT_EQ(companion.open(options), 0);
    for (const char* name : kNames) {
        EXPECT_EQ(statOf(name).st_gid, someGroup()) << name;
        EXPECT_EQ(modeOf(name), 0660U) << name;
    }
}

TEST_F(CompanionFilesTest, HaveTheGroupThatIsAskedForByName) {
    const group* const wanted = geteuid() == 0 ? getgrnam("daemon") : getgrgid(getegid());
    ASSERT_NE(wanted, nullptr);
    options.group = wanted->gr_name;
    const gid_t id = wanted->gr_gid;
    ASSERT_EQ(companion.open(options), 0);
    for (const char* name : kNames) {
        EXPECT_EQ(statOf(name).st_gid, id) << name;
    }
}

TEST_F(CompanionFilesTest, AreLeftAsTheyAreFound) {
    for (const char* name : {"FifoRx", "FifoTx"}) {
        ASSERT_EQ(mkfifo(daemon.path(name).c_str(), 0600), 0);
        ASSERT_EQ(chmod(daemon.path(name).c_str(), 0640), 0);
    }
    const gid_t group = statOf("FifoRx").st_gid;
    const std::string number = std::to_string(someGroup());
    options.group = number.c_str();
    ASSERT_EQ(companion.open(options), 0);
    for (const char* name : {"FifoRx", "FifoTx"}) {
        EXPECT_EQ(modeOf(name), 0640U) << name;
        EXPECT_EQ(statOf(name).st_gid, group) << name;
    }
}

TEST_F(CompanionFilesTest, AreTheSameForTwoAppsThatMakeThemAtOnce) {
    bool otherWasQuicker = false;
    fake_sys::hooks().open = [&](const char* path, int flags) {
        if (!otherWasQuicker) {
            otherWasQuicker = mkfifo(path, 0600) == 0;
            errno = ENOENT;
            return -1;
        }
        return fake_sys::real::open(path, flags);
    };
    ASSERT_EQ(open(UAFD_SPEAKER), 0);
    EXPECT_EQ(modeOf("FifoRx"), 0600U);
    EXPECT_EQ(files().size(), 2U) << "the FIFO and the closed socket";
}

// A file never changes once it has its name: it is complete when it appears.
TEST_F(CompanionFilesTest, AreNeverSeenWithOtherRights) {
    const int watch = inotify_init1(IN_NONBLOCK);
    inotify_add_watch(watch, folder.path().c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB);
    umask(077);
    ASSERT_EQ(open(), 0);
    std::set<std::string> came;
    alignas(inotify_event) char bytes[4096];
    ssize_t size = 0;
    while ((size = read(watch, bytes, sizeof bytes)) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(bytes + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const std::string name = event->len > 0 ? event->name : "";
            if (name.find('.') == std::string::npos) {
                EXPECT_EQ(event->mask & IN_ATTRIB, 0U) << name;
                EXPECT_TRUE(came.insert(name).second) << name << " came twice";
            }
        }
    }
    EXPECT_EQ(came.size(), 3U);
    EXPECT_EQ(files().size(), 3U) << "something is left beside";
    close(watch);
}

TEST_F(CompanionFilesTest, AreNotMadeForAGroupThatIsNone) {
    for (const char* group :
         {"no such group", "", "-1", "4294967295", "99999999999999999999", "5x"}) {
        options.group = group;
        EXPECT_EQ(companion.open(options), -EINVAL) << group;
    }
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(CompanionFilesTest, AreNotLeftBehindForAGroupThatIsNotTheUsers) {
    chmod(folder.path().c_str(), 0777);
    options.group = "12345";
    for (const unsigned part : {UAFD_SPEAKER, UAFD_MIC, UAFD_EVENTS}) {
        options.parts = part;
        const Unprivileged unprivileged;
        EXPECT_EQ(companion.open(options), -EPERM) << part;
    }
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(CompanionFilesTest, AreNotMadeForOptionsThatAreNotUnderstood) {
    struct Later {
        uafd_options options = UAFD_OPTIONS_INIT;
        uint64_t more = 0;
    } later;
    later.options.directory = folder.path().c_str();
    later.options.size = sizeof later;
    later.more = 1;
    uafd_companion* opened = nullptr;
    EXPECT_EQ(uafd_companion_open_with(&later.options, &opened), -EINVAL);
    EXPECT_EQ(opened, nullptr);
    options.size = sizeof options - 1;
    EXPECT_EQ(companion.open(options), -EINVAL);
    options = UAFD_OPTIONS_INIT;
    options.directory = folder.path().c_str();
    options.parts = 8;
    EXPECT_EQ(companion.open(options), -EINVAL);
    options.parts = UAFD_ALL;
    options.mode = 01000;
    EXPECT_EQ(companion.open(options), -EINVAL);
    EXPECT_THAT(files(), IsEmpty());
    later.more = 0;
    EXPECT_EQ(uafd_companion_open_with(&later.options, &opened), 0);
    uafd_companion_close(opened);
}

// ---- An app that takes no events ---------------------------------------------------------------

class WithoutEvents : public CompanionFilesTest, public testing::WithParamInterface<unsigned> {};

TEST_P(WithoutEvents, LeavesASocketThatRefusesAtOnce) {
    EXPECT_EQ(daemon.send(0, 1), ENOENT);
    umask(077);
    ASSERT_EQ(open(GetParam()), 0);
    EXPECT_EQ(daemon.send(0, 1), ECONNREFUSED);
    EXPECT_EQ(modeOf("UdsIpcRx"), 0660U);
    companion.close();
    EXPECT_EQ(daemon.send(0, 1), ECONNREFUSED);
    for (const std::string& name : files()) {
        EXPECT_EQ(name.find('.'), std::string::npos) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(With, WithoutEvents, testing::Values(UAFD_SPEAKER, UAFD_MIC, UAFD_SOUND));

TEST_F(CompanionFilesTest, LeaveTheSocketOfAnAppThatTakesEventsAlone) {
    daemon.bindSocket();
    ASSERT_EQ(openSecond(UAFD_EVENTS), 0);
    ASSERT_EQ(open(UAFD_SOUND), 0);
    companion.close();
    EXPECT_EQ(daemon.send(0, 1), 0);
    second.nextEvent();
    EXPECT_TRUE(second.nextEvent());
}

TEST_F(CompanionFilesTest, GiveTheSocketToTheNextApp) {
    ASSERT_EQ(open(UAFD_SOUND), 0);
    ASSERT_EQ(openSecond(UAFD_EVENTS), 0);
    EXPECT_EQ(daemon.send(0, 1), 0);
    second.close();
    EXPECT_EQ(daemon.send(0, 1), ECONNREFUSED);
}

// A file of this app's would keep another user's app from binding its own.
TEST_F(CompanionFilesTest, AreNotMadeByWhoeverOnlySends) {
    ASSERT_EQ(open(0), 0);
    companion.close();
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(CompanionFilesTest, LetSoundThroughWhereNoSocketCanBeLeft) {
    for (const char* name : {"FifoRx", "FifoTx"}) {
        ASSERT_EQ(mkfifo(daemon.path(name).c_str(), 0600), 0);
        ASSERT_EQ(chmod(daemon.path(name).c_str(), 0666), 0);
    }
    chmod(folder.path().c_str(), 0555);
    {
        const Unprivileged unprivileged;
        EXPECT_EQ(open(UAFD_SOUND), 0);
    }
    chmod(folder.path().c_str(), 0755);
    EXPECT_FALSE(exists("UdsIpcRx"));
}

// ---- One app a part ----------------------------------------------------------------------------

class OnePart : public CompanionFilesTest, public testing::WithParamInterface<unsigned> {};

TEST_P(OnePart, IsOneAppsAtATime) {
    const auto before = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    ASSERT_EQ(open(GetParam()), 0);
    const auto one = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    EXPECT_EQ(openSecond(GetParam()), -EBUSY);
    EXPECT_EQ(openSecond(UAFD_ALL), -EBUSY);
    EXPECT_FALSE(second.isOpen());
    EXPECT_EQ(one, std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    EXPECT_EQ(openSecond(UAFD_ALL & ~GetParam()), 0);
    second.close();
    companion.close();
    EXPECT_EQ(before, std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    EXPECT_EQ(openSecond(GetParam()), 0);
}

TEST_P(OnePart, IsFreeAgainWhenItsAppDies) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t app = fork();
    if (app == 0) {
        const char opened = open(GetParam()) == 0 ? 1 : 0;
        write(ready[1], &opened, 1);
        pause();
    }
    char opened = 0;
    ASSERT_EQ(read(ready[0], &opened, 1), 1);
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(openSecond(GetParam()), -EBUSY);
    kill(app, SIGKILL);
    waitpid(app, nullptr, 0);
    EXPECT_EQ(openSecond(GetParam()), 0);
    close(ready[0]);
    close(ready[1]);
}

INSTANTIATE_TEST_SUITE_P(Of, OnePart, testing::Values(UAFD_SPEAKER, UAFD_MIC, UAFD_EVENTS));

TEST_F(CompanionFilesTest, GoOnAfterAnAppThatWasRefused) {
    openBoth();
    EXPECT_EQ(openSecond(UAFD_SOUND), -EBUSY);
    EXPECT_EQ(openSecond(UAFD_EVENTS), -EBUSY);
    const std::vector<int16_t> block(960, 5);
    daemon.play(block);
    std::vector<int16_t> heard(960);
    EXPECT_EQ(companion.read(heard.data(), 480), 480);
    EXPECT_EQ(heard, block);
    EXPECT_EQ(companion.write(block.data()), 0);
    EXPECT_EQ(daemon.record(), block);
    EXPECT_EQ(daemon.send(0, 1), 0);
    EXPECT_EQ(takeEvents(), (std::vector<Event>{{UAFD_USB_STATE, 1}}));
}

// Two apps open at the same time: one has bound its socket but not yet renamed it.
TEST_F(CompanionFilesTest, AreNotTakenFromAnAppThatIsJustOpening) {
    int result = 1;
    bool first = true;
    fake_sys::hooks().bind = [&](int fd, const sockaddr* address, socklen_t size) {
        const int bound = fake_sys::real::bind(fd, address, size);
        if (std::exchange(first, false)) {
            result = openSecond(UAFD_EVENTS);
        }
        return bound;
    };
    EXPECT_EQ(open(UAFD_EVENTS), 0);
    EXPECT_EQ(result, -EBUSY);
    daemon.bindSocket();
    EXPECT_EQ(daemon.send(0, 1), 0);
    EXPECT_EQ(takeEvents().size(), 2U);
}

TEST_F(CompanionFilesTest, AreTakenFromAnAppThatDiedWhileItOpened) {
    ASSERT_EQ(open(UAFD_EVENTS), 0);
    companion.close();
    std::filesystem::rename(daemon.path("UdsIpcRx"), daemon.path("UdsIpcRx.new"));
    ASSERT_EQ(open(UAFD_EVENTS), 0);
    EXPECT_EQ(daemon.send(0, 1), 0);
    EXPECT_EQ(files(), std::set<std::string>{"usbAudioUdsIpcRx"});
}

// A daemon that starts waits for both FIFOs, and this app has opened one.
TEST_F(CompanionFilesTest, ReleaseADaemonThatWaitsForTheOtherFifo) {
    for (const unsigned part : {UAFD_SPEAKER, UAFD_MIC}) {
        options.parts = part;
        ASSERT_EQ(companion.open(options), 0);
        ASSERT_EQ(companion.releaseDaemon(), 0);
        EXPECT_EQ(statOf(part == UAFD_MIC ? "FifoRx" : "FifoTx").st_mode, S_IFIFO | 0660U);
        auto opening = daemon.beginOpening();
        while (opening.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
            ASSERT_EQ(companion.releaseDaemon(), 0);
        }
        EXPECT_TRUE(daemon.finishOpening(std::move(opening)));
        daemon.end();
        companion.close();
        std::filesystem::remove(daemon.path("FifoRx"));
        std::filesystem::remove(daemon.path("FifoTx"));
    }
}

TEST_F(CompanionFilesTest, AreLeftAloneWhileADaemonRuns) {
    daemon.bindSocket();
    ASSERT_EQ(open(UAFD_MIC), 0);
    ASSERT_EQ(companion.releaseDaemon(), 0);
    EXPECT_FALSE(std::filesystem::exists(daemon.path("FifoRx")));
    companion.close();
    daemon.end();
    ASSERT_EQ(open(UAFD_SOUND), 0);
    EXPECT_EQ(companion.releaseDaemon(), 0) << "both are open";
}

}  // namespace
}  // namespace uafd
