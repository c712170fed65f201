// SPDX-License-Identifier: Apache-2.0
// What surrounds the daemon: too little memory, a log that nobody reads, a second daemon, and what
// earlier ones left behind.
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr size_t kMiB = 1 << 20;

// A child process of the test; it dies with the test or with this object.
class Child {
  public:
    explicit Child(const std::function<void()>& life) : pid(fork()) {
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            life();
            _exit(0);
        }
    }
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void freeze() const { kill(pid, SIGSTOP); }
    void thaw() const { kill(pid, SIGCONT); }
    // Waits; returns the signal that ended it, or 0.
    int waitForEnd() {
        int status = 0;
        const bool ended =
            waitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60 * kSecond);
        pid = ended ? -1 : pid;
        return ended && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

  private:
    pid_t pid;
};

class Environment : public Scenario {
  protected:
    // The driver shows what the daemon does with the app's messages.
    bool answersTheApp() {
        const Ns since = now();
        return app->send({5, 1}) == 0 && host.waitForEvents("uac SET_SPK_MUTE 1 0", since);
    }
    // Starts only the app; the daemon comes later.
    void startApp() { app = std::make_unique<App>(); }
};

// ---- What others left behind -------------------------------------------------------------------

TEST_F(Environment, OfAStaleSocketIsTakenOver) {
    start();
    daemon.stop();
    EXPECT_TRUE(exists(kSocketTx));
    const size_t mark = daemon.mark();
    startDaemon();
    EXPECT_EQ(daemon.count("unlink failed err #, path does not exist ... ignoring", mark), 0);
    EXPECT_TRUE(answersTheApp());
}

TEST_F(Environment, OfAFileInTheSocketsPlaceIsTakenOver) {
    put(kSocketTx, "a file");
    start();
    EXPECT_TRUE(answersTheApp());
}

TEST_F(Environment, OfAFolderInTheSocketsPlaceEndsTheStart) {
    startApp();
    mkdir(kSocketTx, 0755);
    daemon.start();
    EXPECT_EQ(daemon.waitForExit(), 255);
    EXPECT_EQ(daemon.count("unlink failed, error: 21"), 1);
    EXPECT_EQ(daemon.count("failed to initialized IPC ... exiting"), 1);
    rmdir(kSocketTx);
    startDaemon();
    EXPECT_TRUE(answersTheApp());
}

// The second daemon gets the app's messages; each event of the driver goes to one of the two. Both
// go on.
TEST_F(Environment, OfASecondDaemonLeavesBothInOrder) {
    start();
    Daemon second(caseName() + ".second");
    second.start();
    ASSERT_TRUE(second.waitForLog("enter loop"));
    EXPECT_TRUE(answersTheApp());
    EXPECT_EQ(second.count("got speaker volume mute msg: mute=1"), 1);
    EXPECT_EQ(daemon.count("got speaker volume mute msg: mute=1"), 0);

    const size_t messages = app->messages().size();
    host.command("speaker on");
    ASSERT_TRUE(waitForChannel(kSpeaker, true, messages));
    sleepFor(200 * kMs);
    host.command("speaker off");
    sleepFor(200 * kMs);
    expectNobodyBusy();
    EXPECT_TRUE(daemon.isRunning());
    EXPECT_TRUE(second.isRunning());

    second.stop();
    EXPECT_NE(app->send({5, 1}), 0);  // the second one had replaced the socket
    daemon.stop();
    startDaemon();
    EXPECT_TRUE(answersTheApp());
}

// ---- The log -----------------------------------------------------------------------------------

class LogReader : public Environment {
  protected:
    static constexpr char kPipe[] = "/tmp/daemon_log";

    void SetUp() override {
        unlink(kPipe);
        ASSERT_EQ(mkfifo(kPipe, 0600), 0);
        read();
        startApp();
        startDaemon([] { dup2(open(kPipe, O_WRONLY), STDERR_FILENO); });
    }

    // Copies the log into the file where the tests look for it.
    void read() {
        reader = std::make_unique<Child>([this] {
            const std::string command = std::string("exec cat ") + kPipe + " >>" + daemon.logPath;
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        });
    }

    std::unique_ptr<Child> reader;
};

TEST_F(LogReader, MayGoAndComeBack) {
    bothOn();
    reader.reset();
    EXPECT_EQ(findDamage(), "");
    EXPECT_TRUE(answersTheApp());
    expectNobodyBusy();
    read();
    const size_t mark = daemon.mark();
    EXPECT_EQ(findDamage(), "");
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (2)", mark), 2);
    EXPECT_EQ(daemon.count("handler: #"), 0);
}

// The pipe fills up and lines are lost; nobody waits.
TEST_F(LogReader, MayStandStill) {
    reader->freeze();
    const size_t messages = app->messages().size();
    constexpr int changes = 2000;  // more lines than a pipe holds
    for (int i = 0; i < changes; ++i) {
        host.command("mute speaker " + std::to_string(i % 2));
        // More than the daemon's queue holds at once would be lost.
        ASSERT_TRUE(app->waitForMessages(messages + static_cast<size_t>(i) + 1));
    }
    EXPECT_EQ(findDamage(), "");
    const size_t mark = daemon.mark();
    reader->thaw();
    sleepFor(100 * kMs);
    EXPECT_GT(daemon.mark(), mark);
    EXPECT_EQ(findDamage(), "");
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (2)", mark), 2);
}

// ---- Memory ------------------------------------------------------------------------------------

// Each thread's stack takes the whole stack limit from the address space.
struct Room {
    size_t stacks;  // how many fit at the start
    const char* complaint;
};

class RoomAtStart : public Environment, public testing::WithParamInterface<Room> {
  protected:
    static constexpr size_t kStack = 64 * kMiB;

    static void limitTo(size_t stacks) {
        const rlimit stack{kStack, kStack};
        const rlimit space{stacks * kStack + kStack / 2, RLIM_INFINITY};
        setrlimit(RLIMIT_STACK, &stack);
        setrlimit(RLIMIT_AS, &space);
    }
};

TEST_P(RoomAtStart, ForTooFewThreadsEndsTheStart) {
    startApp();
    daemon.start([] { limitTo(GetParam().stacks); });
    EXPECT_EQ(daemon.waitForExit(), 255);
    EXPECT_EQ(daemon.count(GetParam().complaint), 1);
    EXPECT_EQ(daemon.count("failed to initialized IPC ... exiting"), 1);
    startDaemon();
    EXPECT_TRUE(answersTheApp());
}

INSTANTIATE_TEST_SUITE_P(
    Of, RoomAtStart,
    testing::Values(Room{0, "creating IPC RX thread failed: <11:12:Cannot allocate memory>"},
                    Room{1, "creating IPC TX thread failed: <11:12:Cannot allocate memory>"}),
    [](const auto& info) { return std::to_string(info.param.stacks) + "Stacks"; });

// Without the cable's monitor the daemon still streams.
TEST_F(RoomAtStart, ForAllButTheMonitorStreams) {
    startApp();
    missingThreads = 1;
    startDaemon([] { limitTo(2); });
    EXPECT_EQ(daemon.count("pthread_create: <#:#>"), 0);
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &unlimited, nullptr), 0);
    const size_t messages = app->messages().size();
    host.command("usb_state DISCONNECTED");
    host.command("usb_state CONFIGURED");
    sleepFor(100 * kMs);
    EXPECT_EQ(app->messages().size(), messages);
}

// A running daemon keeps its memory, but gets no more.
class NoMoreMemory : public Environment, public testing::WithParamInterface<size_t> {
  protected:
    static constexpr size_t kStack = 8 * kMiB;

    // Leaves room for this many bytes more.
    void limitTo(size_t bytes) {
        std::istringstream pages(contents("/proc/" + std::to_string(daemon.pid()) + "/statm"));
        size_t total = 0;
        pages >> total;
        setLimit(total * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + bytes);
    }
    void lift() { setLimit(RLIM_INFINITY); }

  private:
    void setLimit(rlim_t bytes) {
        const rlimit limit{bytes, RLIM_INFINITY};
        ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_AS, &limit, nullptr), 0);
    }
};

// The speaker needs one thread for a stream, the microphone two.
TEST_P(NoMoreMemory, KeepsThreadsFromStartingUntilThereIsSome) {
    const size_t threads = GetParam();
    start();
    limitTo(threads * kStack + kStack / 2);  // a heap may grow, too
    switchBoth(true);
    ASSERT_TRUE(settle());
    EXPECT_EQ(threadCount(daemon.pid()), kIdleThreads + threads);
    EXPECT_EQ(daemon.count("pthread_create failed"), threads == 0 ? 2 : 1);
    EXPECT_EQ(daemon.count("pthread_create: <12:Cannot allocate memory>"), threads < 2 ? 1 : 0);
    expectNobodyBusy();
    EXPECT_TRUE(answersTheApp());
    lift();
    bothOff();
    ASSERT_TRUE(settle());
    bothOn();
}

INSTANTIATE_TEST_SUITE_P(For, NoMoreMemory, testing::Values(0, 1, 2),
                         [](const auto& info) { return std::to_string(info.param) + "Threads"; });

class Streaming : public NoMoreMemory {
  protected:
    void SetUp() override {
        start();
        host.command("flush speaker");
        player = std::make_unique<HostPlayer>(noise);
        ASSERT_TRUE(player->fill());
        app->speak(noise);
        bothOn();
        ASSERT_TRUE(hostHears());
        xrunsBefore = xruns();
    }

    // Everything since the start was heard, no frame is missing, and the host still hears the app.
    void expectExact() {
        const int64_t heardBefore = app->heardFrames();
        EXPECT_TRUE(waitFor([&] { return app->heardFrames() > heardBefore + kRate / 10; }));
        expectNoise(app->takeHeard().left);
        EXPECT_EQ(xruns(), xrunsBefore);
    }

    std::unique_ptr<HostPlayer> player;

  private:
    int64_t xrunsBefore = 0;
};

TEST_F(Streaming, GoesOnWithoutMoreMemory) {
    limitTo(0);
    for (int i = 0; i < 50; ++i) {
        host.command("volume mic " + std::to_string(i));
        sleepFor(20 * kMs);
    }
    EXPECT_TRUE(answersTheApp());
    EXPECT_TRUE(hostHears());
    expectExact();
    bothOff();
    EXPECT_TRUE(hasThreads(kIdleThreads));
    lift();
}

// Leaves the board almost no memory without the work of filling it: unused huge pages take it away.
class ScarceMemory {
  public:
    ScarceMemory() {
        std::istringstream lines(contents("/proc/meminfo"));
        std::string key;
        size_t kb = 0;
        std::string unit;
        while (lines >> key >> kb >> unit && key != "MemAvailable:") {
        }
        put(kHugePages, std::to_string((kb / 1024 - kLeftMiB) / 2));
    }
    ~ScarceMemory() { put(kHugePages, "0"); }
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

  private:
    static constexpr char kHugePages[] = "/proc/sys/vm/nr_hugepages";  // of 2 MiB
    static constexpr size_t kLeftMiB = 48;
};

// Memory is short until the kernel kills the process that takes it.
TEST_F(Streaming, GoesOnWhileAnotherProcessTakesAllMemory) {
    const ScarceMemory scarce;
    Child glutton([] {
        put("/proc/self/oom_score_adj", "1000");
        for (;;) {
            void* const more = mmap(nullptr, kMiB, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
            if (more == MAP_FAILED) {
                _exit(1);
            }
        }
    });
    EXPECT_EQ(glutton.waitForEnd(), SIGKILL);
    EXPECT_TRUE(hostHears());
    expectExact();
    bothOff();
}

}  // namespace
}  // namespace uafd
