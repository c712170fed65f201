// SPDX-License-Identifier: Apache-2.0
// The companion tool on the board as its user sees it: the tool talks to the daemon, and the host
// is at the other end of the cable.
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"
#include "tests/support/daemon_ends.h"

namespace uafd {
namespace {

using namespace board;
using testing::HasSubstr;

constexpr char kTool[] = "/bin/uafd-companion";

class CompanionTool : public BoardCase {
  protected:
    ChildProcess& start(std::vector<std::string> words, const std::function<void()>& prepare = {}) {
        words.insert(words.begin(), kTool);
        return tool.emplace(words, prepare);
    }
    // The daemon waits for an app's FIFO ends; here the tool is that app.
    void startWithDaemon(const std::vector<std::string>& words) {
        micService = std::make_unique<MicService>();
        start(words);
        daemon.start();
        ASSERT_TRUE(daemon.waitForLog("Fifos observed*"));
    }
    // Its output, once it has ended with success.
    std::string outputAfter(int status) {
        EXPECT_EQ(tool->wait(), status) << tool->errors();
        return tool->output();
    }

    std::optional<ChildProcess> tool;
};

// The host plays what it records, as if a cable looped its sound back.
class HostCable {
  public:
    HostCable() : thread([this] { run(); }) {}
    ~HostCable() {
        stop = true;
        thread.join();
    }

  private:
    void run() {
        const Fd ear = Fd::open("/dev/usb_host_mic", O_RDONLY | O_NONBLOCK);
        const Fd mouth = Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
        while (!stop) {
            char sound[4800];
            const ssize_t got = read(ear.get(), sound, sizeof sound);
            if (got > 0) {
                EXPECT_EQ(write(mouth.get(), sound, static_cast<size_t>(got)), got);
            }
            sleepFor(kMs);
        }
    }

    std::atomic<bool> stop{false};
    std::thread thread;
};

constexpr char kAllPassed[] =
    "ok    daemon and app may open each other's files\n"
    "ok    a sync-up is answered\n"
    "ok    the speaker's volume is accepted\n"
    "ok    the speaker's mute is accepted\n"
    "ok    the speaker stream is on\n"
    "ok    the host's sound arrives complete\n"
    "ok    the microphone stream is on\n"
    "ok    the app's sound is accepted\n"
    "ok    both streams go on when the FIFOs reopen\n"
    "ok    both streams are still on\n"
    "10 passed, 0 failed\n";

TEST_F(CompanionTool, FindsTheDaemonGood) {
    const HostPlayer player(noise);
    switchBoth(true);
    const Ns since = now();
    startWithDaemon({"check", "--volume", "-1280"});
    EXPECT_EQ(outputAfter(0), kAllPassed);
    EXPECT_EQ(host.countEvents("uac SET_SPK_VOLUME -1280 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 1 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 0 0", since), 1);
    EXPECT_FALSE(exists(kSocketRx)) << "it would keep another user's app from binding its own";
    EXPECT_TRUE(exists(kFifoRx));
}

TEST_F(CompanionTool, FindsThatAFrozenDaemonDoesNotAnswer) {
    const HostPlayer player(noise);
    switchBoth(true);
    startWithDaemon({"loop"});
    ASSERT_TRUE(hasThreads(kStreamingThreads));
    daemon.freeze();
    start({"check", "--wait", "0.5"});
    EXPECT_THAT(outputAfter(1), HasSubstr("FAIL  a sync-up is answered: no answer\n"));
    daemon.thaw();
    start({"check"});
    EXPECT_EQ(outputAfter(0), kAllPassed);
}

TEST_F(CompanionTool, FindsWhatTheHostLeavesUndone) {
    startWithDaemon({"check", "--wait", "0.5"});
    const std::string output = outputAfter(1);
    EXPECT_THAT(output, HasSubstr("ok    the speaker's mute is accepted\n"));
    EXPECT_THAT(output,
                HasSubstr("FAIL  the speaker stream is on: it is off: does the host play?"));
    EXPECT_THAT(output,
                HasSubstr("FAIL  the microphone stream is on: it is off: does the host record?"));
    EXPECT_THAT(output, HasSubstr("FAIL  both streams go on when the FIFOs reopen: "));
}

TEST_F(CompanionTool, RecordsPlaysAndTells) {
    const HostPlayer player(ramp);
    ASSERT_TRUE(player.fill());
    startWithDaemon({"record", "/out/heard.wav", "--seconds", "1"});
    switchBoth(true);
    EXPECT_EQ(outputAfter(0), "");
    const Samples heard = readWav("/out/heard.wav");
    ASSERT_GT(heard.size(), static_cast<size_t>(kRate / 2));
    ASSERT_LE(heard.size(), static_cast<size_t>(kRate));
    EXPECT_EQ(breaksIn(heard), 0);

    const Samples speech = render(noise, 0, kRate);
    writeWav("/out/said.wav", speech);
    host.takeRecording();
    start({"play", "/out/said.wav"});
    outputAfter(0);
    sleepFor(kSecond / 10);
    const Samples recorded = host.takeRecording();
    // The file arrives from its first sample on; latency control may bend a frame here and there.
    const auto first = static_cast<size_t>(std::find(recorded.begin(), recorded.end(), speech[0]) -
                                           recorded.begin());
    ASSERT_EQ(find(recorded, first, speech), 0);
    EXPECT_GE(recorded.size() - first, speech.size());

    start({"events", "--count", "4"});
    const std::string events = outputAfter(0);
    EXPECT_THAT(events, HasSubstr(" usb configured\n"));
    EXPECT_THAT(events, HasSubstr(" speaker on\n"));
    EXPECT_THAT(events, HasSubstr(" microphone on\n"));
}

// The host plays nothing, so the recording is silence.
TEST_F(CompanionTool, RecordsForAsLongAsItIsAskedTo) {
    const Ns begin = now();
    startWithDaemon({"record", "/out/heard.wav", "--seconds", "3"});
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_NEAR(static_cast<double>(now() - begin) / kSecond, 3, 0.5);
    EXPECT_EQ(readWav("/out/heard.wav").size(), 0U);
}

// The number after "KEY": in an object's part that begins with "PART".
double valueIn(const std::string& json, const std::string& part, const std::string& key) {
    const size_t begin = json.find("\"" + part + "\":{");
    const std::string mark = "\"" + key + "\":";
    const size_t at = begin == std::string::npos ? begin : json.find(mark, begin);
    return at == std::string::npos ? NAN : strtod(json.c_str() + at + mark.size(), nullptr);
}

TEST_F(CompanionTool, WatchesDaemonAndAppFromOutside) {
    const HostPlayer player(noise);
    switchBoth(true);
    startWithDaemon({"loop"});
    ASSERT_TRUE(hasThreads(kStreamingThreads));
    sleepFor(kSecond / 10);  // the first periods of a stream move at once
    ChildProcess top({kTool, "top", "--once", "--json"});
    EXPECT_EQ(top.wait(), 0) << top.errors();
    const std::string seen = top.output();
    printf("%s", seen.c_str());
    EXPECT_THAT(seen, HasSubstr(R"("daemon":"running","pid":)" + std::to_string(daemon.pid())));
    EXPECT_THAT(seen, HasSubstr(R"("usb_state":1,"card":1,"messages_taken":1,)"));
    for (const char* stream : {"speaker", "mic"}) {
        EXPECT_EQ(valueIn(seen, stream, "on"), 1);
        EXPECT_NEAR(valueIn(seen, stream, "frames_per_second"), kRate, kRate / 50) << stream;
        EXPECT_GT(valueIn(seen, stream, "waiting_frames"), -1);
        EXPECT_LE(valueIn(seen, stream, "waiting_frames"), 2400);
        EXPECT_EQ(valueIn(seen, stream, "restarts"), 0);
        EXPECT_EQ(valueIn(seen, stream, "daemon_end_open"), 1);
    }
    EXPECT_THAT(seen, HasSubstr(R"("app_name":"uafd-companion")"));
    ChildProcess page({kTool, "top", "--once", "--interval", "0.1"});
    EXPECT_EQ(page.wait(), 0);
    printf("%s", page.output().c_str());
}

TEST_F(CompanionTool, MeasuresTheLatencyOfACable) {
    const HostCable cable;
    switchBoth(true);
    startWithDaemon({"latency", "--count", "3"});
    const std::string output = outputAfter(0);
    double median = 0;
    ASSERT_EQ(sscanf(output.c_str(), "%*f ms\n%*f ms\n%*f ms\nmedian %lf ms", &median), 1)
        << output;
    printf("%s", output.c_str());
    // 5 ms from the app to the host, 10 to 20 ms back, and the cable's own latency.
    EXPECT_GT(median, 15);
    EXPECT_LT(median, 60);
}

// ---- Users and groups --------------------------------------------------------------------------

constexpr uid_t kDaemonUser = 500;
constexpr gid_t kDaemonGroup = 501;
constexpr uid_t kAppUser = 1000;

// A folder like /tmp, holding the socket of a daemon that is neither root nor the app's user.
class UsersFolder : public CompanionTool {
  protected:
    UsersFolder() {
        chmod(folder.path().c_str(), 01777);
        daemonEnds.bindSocket();
        giveTo(daemonEnds.path("UdsIpcTx"), kDaemonUser, kDaemonGroup, 0770);
    }
    static void giveTo(const std::string& path, uid_t user, gid_t group, mode_t mode) {
        EXPECT_EQ(chown(path.c_str(), user, group), 0);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
    }
    std::string path(const std::string& name) const { return daemonEnds.path(name); }
    // Runs the check as a user who has the daemon's group as a supplementary group, or has not.
    void check(bool isInGroup, mode_t mask = 022) {
        start({"check", "--wait", "0.5", "--directory", folder.path()}, [isInGroup, mask] {
            const gid_t groups[] = {kDaemonGroup};
            umask(mask);
            if (setgroups(isInGroup ? 1 : 0, groups) != 0 || setgid(kAppUser) != 0 ||
                setuid(kAppUser) != 0) {
                _exit(126);
            }
        });
        EXPECT_EQ(tool->wait(), 1);
    }
    std::string failure(const std::string& reason) const {
        return "FAIL  daemon and app may open each other's files: " + reason +
               "\n0 passed, 1 failed, 9 not tried\n";
    }
    static std::string ownerOf(const std::string& path) {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0) << path;
        char text[64];
        snprintf(text, sizeof text, "%u:%u %o", found.st_uid, found.st_gid, found.st_mode & 07777);
        return text;
    }

    TempDir folder;
    DaemonEnds daemonEnds{folder};
};

TEST_F(UsersFolder, IsNotForAnAppOfAnotherGroup) {
    check(false);
    EXPECT_EQ(tool->output(),
              failure(path("FifoRx") + " would be made for 1000:1000, not for the daemon "
                                       "(500:501): run this in the daemon's group"));
    EXPECT_FALSE(exists(path("FifoRx")));
    EXPECT_FALSE(exists(path("UdsIpcRx")));
}

TEST_F(UsersFolder, IsForAnAppOfTheGroupWhateverItsMask) {
    check(true, 077);
    EXPECT_THAT(tool->output(), HasSubstr("ok    daemon and app may open each other's files\n"));
    EXPECT_EQ(ownerOf(path("FifoRx")), "1000:501 660");
    EXPECT_FALSE(exists(path("UdsIpcRx")));
}

TEST_F(UsersFolder, ShowsAFifoThatIsNotForTheApp) {
    ASSERT_EQ(mkfifo(path("FifoTx").c_str(), 0660), 0);
    giveTo(path("FifoTx"), 0, kDaemonGroup, 0660);
    check(false);
    EXPECT_EQ(tool->output(), failure(path("FifoRx") + " would be made for 1000:1000, not for the "
                                                       "daemon (500:501): run this in the "
                                                       "daemon's group"));
    ASSERT_EQ(mkfifo(path("FifoRx").c_str(), 0666), 0);
    giveTo(path("FifoRx"), 0, kDaemonGroup, 0666);
    check(false);
    EXPECT_EQ(tool->output(),
              failure(path("FifoTx") +
                      " (0:501 0660) is not for this process (1000:1000): run it in the file's "
                      "group"));
}

// With mode 0644, as a umask of 022 leaves a FIFO of mode 0666.
TEST_F(UsersFolder, ShowsAFifoThatIsNotForTheDaemon) {
    ASSERT_EQ(mkfifo(path("FifoRx").c_str(), 0644), 0);
    giveTo(path("FifoRx"), kAppUser, kAppUser, 0644);
    check(true);
    EXPECT_EQ(tool->output(),
              failure(path("FifoRx") +
                      " (1000:1000 0644) is not for the daemon (500:501): remove it, or give it to "
                      "the daemon's group"));
}

TEST_F(UsersFolder, ShowsASocketThatAnotherUserLeft) {
    ASSERT_EQ(mknod(path("UdsIpcRx").c_str(), S_IFSOCK, 0), 0);
    giveTo(path("UdsIpcRx"), 0, kDaemonGroup, 0660);
    check(true);
    EXPECT_EQ(tool->output(), failure(path("UdsIpcRx") +
                                      " (0:501 0660) was left by another user, who has to remove "
                                      "it"));
}

TEST_F(UsersFolder, MakesFilesForTheGroupThatIsNamed) {
    start({"record", "/out/heard.wav", "--seconds", "0.5", "--group", "777", "--directory",
           folder.path()});
    outputAfter(0);
    EXPECT_EQ(ownerOf(path("FifoRx")), "0:777 660");
    EXPECT_EQ(ownerOf(path("UdsIpcRx")), "0:777 660");
}

TEST_F(UsersFolder, TellsTheStatusOfADaemonThatIsNotForTheApp) {
    start({"status", "--directory", folder.path()}, [] {
        if (setgroups(0, nullptr) != 0 || setgid(kAppUser) != 0 || setuid(kAppUser) != 0) {
            _exit(126);
        }
    });
    EXPECT_THAT(outputAfter(1), HasSubstr("daemon      unreachable\n"));
    EXPECT_EQ(tool->errors(),
              "uafd-companion: status: " + path("FifoRx") +
                  " would be made for 1000:1000, not for the daemon (500:501): run this in the "
                  "daemon's group\n");
}

// Root may replace another user's socket, and then gives the new one to the same owner.
TEST_F(UsersFolder, GivesASocketBackToTheUserWhoLeftIt) {
    ASSERT_EQ(mknod(path("UdsIpcRx").c_str(), S_IFSOCK, 0), 0);
    giveTo(path("UdsIpcRx"), kAppUser, kDaemonGroup, 0640);
    start({"check", "--wait", "0.5", "--directory", folder.path()});
    EXPECT_THAT(outputAfter(1), HasSubstr("FAIL  a sync-up is answered: no answer\n"));
    EXPECT_EQ(ownerOf(path("UdsIpcRx")), "1000:501 640");
    EXPECT_EQ(ownerOf(path("FifoRx")), "0:501 660") << "a new FIFO gets the daemon's group";
}

}  // namespace
}  // namespace uafd
