// SPDX-License-Identifier: Apache-2.0
// The log on systems other than Android, with its real output: standard error is a socket that
// keeps the boundaries between write() calls, or a pipe whose reader has gone or stopped.
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <android/log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/unit/eventually.h"

namespace uafd {

extern "C" {
int __real_poll(pollfd* fds, nfds_t count, int timeoutMs);
ssize_t __real_write(int fd, const void* data, size_t size);
int __real_clock_gettime(clockid_t clock, timespec* now);
}

namespace {

// 2023-11-14 22:13:20.007 UTC
constexpr timespec kSomeTime = {1700000000, 7999999};
timespec fakeNow = kSomeTime;
std::atomic<int> betweenPollAndWrite{0};
std::atomic<int> mostBetweenPollAndWrite{0};
std::atomic<int> interruptedWrites{0};  // still to come
void (*duringNextWrite)() = nullptr;

}  // namespace

extern "C" {
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, now);
    *now = fakeNow;
    return 0;
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeoutMs) {
    const int ready = __real_poll(fds, count, timeoutMs);
    if (ready == 1) {
        const int now = ++betweenPollAndWrite;
        if (now > mostBetweenPollAndWrite)
            mostBetweenPollAndWrite = now;
        std::this_thread::yield();
    }
    return ready;
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    --betweenPollAndWrite;
    if (interruptedWrites > 0) {
        --interruptedWrites;
        errno = EINTR;
        return -1;
    }
    if (const auto action = std::exchange(duringNextWrite, nullptr)) {
        action();
    }
    return __real_write(fd, data, size);
}
}

namespace {

std::atomic<int> sigpipes{0};

void onSigpipe(int) {
    sigpipes++;
    __android_log_print(ANDROID_LOG_DEBUG, "UAFIFO", "SIGPIPE\n");
}

class AndroidLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNow = kSomeTime;
        sigpipes = 0;
        savedStderr = dup(STDERR_FILENO);
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
        useAsStderr(ends[1]);
        reader = ends[0];
        struct sigaction action = {};
        action.sa_handler = onSigpipe;
        sigaction(SIGPIPE, &action, &savedAction);
    }

    void TearDown() override {
        useAsStderr(savedStderr);
        if (reader >= 0)
            close(reader);
        sigaction(SIGPIPE, &savedAction, nullptr);
    }

    void useAsStderr(int fd) {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }

    void usePipeAsStderr() {
        close(reader);
        int ends[2];
        ASSERT_EQ(0, pipe(ends));
        useAsStderr(ends[1]);
        reader = ends[0];
    }

    void closeReader() {
        close(reader);
        reader = -1;
    }

    // Fills the pipe, which stays a blocking one.
    void fillPipe() {
        const int flags = fcntl(STDERR_FILENO, F_GETFL);
        fcntl(STDERR_FILENO, F_SETFL, flags | O_NONBLOCK);
        const std::vector<char> filler(4096, 'x');
        while (__real_write(STDERR_FILENO, filler.data(), filler.size()) > 0) {
        }
        fcntl(STDERR_FILENO, F_SETFL, flags);
    }

    // The bytes of one write(); "" when there was none.
    std::string nextWrite() {
        std::array<char, 8192> data;
        const ssize_t got = recv(reader, data.data(), data.size(), MSG_DONTWAIT);
        return got > 0 ? std::string(data.data(), static_cast<size_t>(got)) : "";
    }

    // One message's text as it is printed, after "TAG     : ".
    std::string printed(const std::string& text) {
        __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "%s", text.c_str());
        const std::string line = nextWrite();
        return line.substr(line.find(": ") + 2);
    }

    int reader = -1;

  private:
    int savedStderr = -1;
    struct sigaction savedAction = {};
};

std::string processAndThread() {
    std::array<char, 32> text;
    snprintf(text.data(), text.size(), "%5d %5d", static_cast<int>(getpid()),
             static_cast<int>(gettid()));
    return text.data();
}

TEST_F(AndroidLogTest, OneMessageIsOneWriteInThreadtimeForm) {
    const std::string expected =
        "11-14 22:13:20.007 " + processAndThread() + " D UAFCH   : intfUpdate: 1 of \"x\"\n";
    EXPECT_EQ(
        static_cast<int>(expected.size()),
        __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "intfUpdate: %d of \"%s\"\n", 1, "x"));
    EXPECT_EQ(expected, nextWrite());
    EXPECT_EQ("", nextWrite());
}

TEST_F(AndroidLogTest, LongTagKeepsItsLettersAndNoTagIsBlank) {
    __android_log_print(ANDROID_LOG_ERROR, "LONGERTAG", "text");
    EXPECT_NE(std::string::npos, nextWrite().find(" E LONGERTAG: text\n"));
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "text");
    EXPECT_NE(std::string::npos, nextWrite().find(" E         : text\n"));
}

TEST_F(AndroidLogTest, EveryPriorityHasLogcatsLetter) {
    const std::string letters = "???VDIWEFS??";
    for (int priority = -1; priority <= 10; priority++) {
        __android_log_print(priority, "UAFCH", "text");
        const std::string mark =
            std::string(" ") + letters[static_cast<size_t>(priority + 1)] + " UAFCH   : text";
        EXPECT_NE(std::string::npos, nextWrite().find(mark)) << priority;
    }
}

TEST_F(AndroidLogTest, MessageIsExactlyOneLine) {
    EXPECT_EQ("no line end\n", printed("no line end"));
    EXPECT_EQ("one\n", printed("one\n"));
    EXPECT_EQ("several\n", printed("several\n\r\n\n"));
    EXPECT_EQ("a b  c\n", printed("a\nb\r\nc\n"));
    EXPECT_EQ("\n", printed(""));
    EXPECT_EQ("\n", printed("\n\n"));
}

TEST_F(AndroidLogTest, LongTextIsCutAndStillEndsItsLine) {
    EXPECT_EQ(std::string(1023, 't') + "\n", printed(std::string(1023, 't')));
    EXPECT_EQ(std::string(1023, 't') + "\n", printed(std::string(1024, 't')));
    EXPECT_EQ(std::string(1023, 't') + "\n", printed(std::string(100000, 't')));
}

TEST_F(AndroidLogTest, LongTagIsCutWhereAPipeStillTakesTheLineAtOnce) {
    const std::string tag(10000, 'T');
    EXPECT_EQ(4095, __android_log_print(ANDROID_LOG_DEBUG, tag.c_str(), "text"));
    const std::string line = nextWrite();
    EXPECT_EQ(4095U, line.size());
    EXPECT_EQ("TT\n", line.substr(line.size() - 3));
}

TEST_F(AndroidLogTest, DateIsTheCalendarsOnEveryDay) {
    const time_t firstDays[] = {0, 951696000, 1704067200, 4070908800};  // 1970, 2000, 2024, 2099
    for (const time_t first : firstDays) {
        for (int day = 0; day < 800; day++) {
            fakeNow = {first + day * 86400 + day * 107, day * 1249999L};
            tm calendar{};
            gmtime_r(&fakeNow.tv_sec, &calendar);
            std::array<char, 32> expected;
            strftime(expected.data(), expected.size(), "%m-%d %H:%M:%S.", &calendar);
            __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text");
            ASSERT_EQ(expected.data(), nextWrite().substr(0, 15)) << first << '+' << day;
        }
    }
}

TEST_F(AndroidLogTest, MillisecondsAreCutNotRounded) {
    fakeNow.tv_nsec = 999999999;
    __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text");
    EXPECT_EQ("22:13:20.999", nextWrite().substr(6, 12));
}

TEST_F(AndroidLogTest, ErrnoIsKept) {
    errno = EXDEV;
    __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text");
    EXPECT_EQ(EXDEV, errno);
    usePipeAsStderr();
    closeReader();
    errno = EXDEV;
    EXPECT_EQ(-EPIPE, __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text"));
    EXPECT_EQ(EXDEV, errno);
}

TEST_F(AndroidLogTest, ClosedStandardErrorIsReported) {
    close(STDERR_FILENO);
    EXPECT_EQ(-EBADF, __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text"));
}

TEST_F(AndroidLogTest, GoneReaderRaisesNoSignal) {
    usePipeAsStderr();
    closeReader();
    sigset_t before, after, pending;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    EXPECT_EQ(-EPIPE, __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text"));
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    sigpending(&pending);
    EXPECT_EQ(0, sigpipes);
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
    EXPECT_EQ(0, sigismember(&before, SIGPIPE));
    EXPECT_EQ(0, sigismember(&after, SIGPIPE));
}

TEST_F(AndroidLogTest, SigpipeHandlerThatLogsToAGoneReaderRunsOnce) {
    usePipeAsStderr();
    closeReader();
    raise(SIGPIPE);
    EXPECT_EQ(1, sigpipes);
}

TEST_F(AndroidLogTest, SigpipePendingBeforeIsLeftPending) {
    usePipeAsStderr();
    closeReader();
    sigset_t pipeOnly, before, pending;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &before);
    raise(SIGPIPE);
    EXPECT_EQ(-EPIPE, __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "text"));
    sigpending(&pending);
    EXPECT_EQ(1, sigismember(&pending, SIGPIPE));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(1, sigpipes);
}

TEST_F(AndroidLogTest, StoppedReaderLosesTheLineInsteadOfWaiting) {
    usePipeAsStderr();
    fillPipe();
    EXPECT_EQ(-EAGAIN, __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "lost"));
    std::array<char, 8192> filler;
    ASSERT_GT(read(reader, filler.data(), filler.size()), 0);
    EXPECT_GT(__android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "seen"), 0);
}

TEST_F(AndroidLogTest, ASignalCostsNoLine) {
    interruptedWrites = 2;
    EXPECT_EQ("text\n", printed("text"));
    EXPECT_EQ(0, interruptedWrites);
    EXPECT_EQ("", nextWrite());
}

TEST_F(AndroidLogTest, NoOtherThreadTakesTheRoomThatPollFound) {
    useAsStderr(open("/dev/null", O_WRONLY));
    betweenPollAndWrite = 0;
    mostBetweenPollAndWrite = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([] {
            const std::string text(900, 't');
            for (int line = 0; line < 500; line++)
                __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "%s", text.c_str());
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1, mostBetweenPollAndWrite);
}

std::thread waiting;

void letAThreadWait() {
    std::atomic<pid_t> id{0};
    waiting = std::thread([&id] {
        id = gettid();
        __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "waiting");
    });
    ASSERT_TRUE(fallsAsleep(id));
}

TEST_F(AndroidLogTest, ALineThatWaitsComesBeforeTheNextOneOfTheWriter) {
    for (int round = 0; round < 20; ++round) {
        duringNextWrite = letAThreadWait;
        const std::string first = printed("first");
        __android_log_print(ANDROID_LOG_DEBUG, "UAFCH", "next");
        waiting.join();
        ASSERT_EQ("first\n", first);
        ASSERT_THAT(nextWrite(), testing::EndsWith(": waiting\n"));
        ASSERT_THAT(nextWrite(), testing::EndsWith(": next\n"));
    }
}

}  // namespace
}  // namespace uafd
