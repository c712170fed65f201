// SPDX-License-Identifier: Apache-2.0
// What an app learns of a daemon's end and start, and what it believes afterwards.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/companion_test.h"
#include "tests/unit/eventually.h"

namespace uafd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Message = DaemonEnds::Message;

class CompanionDaemonTest : public CompanionTest {
  protected:
    void SetUp() override { ASSERT_EQ(open(UAFD_EVENTS), 0); }
    // Sends the app these states.
    void tell(const std::vector<Message>& messages) {
        for (const Message& message : messages) {
            ASSERT_EQ(daemon.send(message.first, message.second), 0);
        }
    }
    void replaceDaemon() {
        daemon.end();
        daemon.bindSocket();
    }
    // What an app believes that keeps the last event of each kind since the library was opened.
    std::map<uafd_event_type, int> believe() {
        for (const Event& event : takeEvents()) {
            believed[event.first] = event.second;
        }
        return believed;
    }

  private:
    std::map<uafd_event_type, int> believed;
};

TEST_F(CompanionDaemonTest, IsToldAtTheOpeningAndAskedForItsStates) {
    daemon.bindSocket();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}));
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_THAT(daemon.messages(), IsEmpty());
}

TEST_F(CompanionDaemonTest, IsToldWhenItComesLater) {
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_EQ(companion.counts().messages_failed, 0U);
    daemon.bindSocket();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}));
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
}

TEST_F(CompanionDaemonTest, IsToldBeforeWhatItHasSent) {
    daemon.bindSocket();
    tell({{0, 1}});
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}, Event{UAFD_USB_STATE, 1}));
}

TEST_F(CompanionDaemonTest, TakesEveryStateBackWhenItEnds) {
    daemon.bindSocket();
    tell({{0, 1}, {1, 1}, {2, 1}, {3, 5}, {5, 1}});
    takeEvents();
    daemon.end();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 0}, Event{UAFD_USB_STATE, 0},
                                          Event{UAFD_SPEAKER_STATE, 0}, Event{UAFD_MIC_STATE, 0}));
    EXPECT_THAT(takeEvents(), IsEmpty());
}

TEST_F(CompanionDaemonTest, TakesNothingBackThatWasNotOn) {
    daemon.bindSocket();
    tell({{0, 1}, {1, 1}, {1, 0}, {2, 0}});
    takeEvents();
    daemon.end();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 0}, Event{UAFD_USB_STATE, 0}));
}

TEST_F(CompanionDaemonTest, SaysItsLastWordsBeforeItsEnd) {
    daemon.bindSocket();
    takeEvents();
    tell({{1, 1}});
    daemon.end();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_SPEAKER_STATE, 1}, Event{UAFD_DAEMON_STATE, 0},
                                          Event{UAFD_SPEAKER_STATE, 0}));
}

TEST_F(CompanionDaemonTest, IsAskedAgainWhenItIsBack) {
    daemon.bindSocket();
    tell({{0, 1}, {1, 1}});
    believe();
    daemon.end();
    EXPECT_THAT(believe(), ElementsAre(Pair(UAFD_USB_STATE, 0), Pair(UAFD_SPEAKER_STATE, 0),
                                       Pair(UAFD_DAEMON_STATE, 0)));
    daemon.bindSocket();
    believe();
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
    tell({{0, 1}, {1, 0}, {2, 1}});
    EXPECT_THAT(believe(), ElementsAre(Pair(UAFD_USB_STATE, 1), Pair(UAFD_SPEAKER_STATE, 0),
                                       Pair(UAFD_MIC_STATE, 1), Pair(UAFD_DAEMON_STATE, 1)));
}

// The replacement is too fast for a look in between, and file systems reuse a number at once.
TEST_F(CompanionDaemonTest, IsToldAsGoneAndBackWhenItWasReplaced) {
    daemon.bindSocket();
    tell({{0, 1}, {2, 1}});
    takeEvents();
    for (int i = 0; i < 3; ++i) {
        replaceDaemon();
        const std::vector<Event> told = takeEvents();
        ASSERT_FALSE(told.empty());
        EXPECT_EQ(told.front(), (Event{UAFD_DAEMON_STATE, 0}));
        EXPECT_EQ(told.back(), (Event{UAFD_DAEMON_STATE, 1}));
        EXPECT_EQ(told.size(), i == 0 ? 4U : 2U);
        EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
    }
}

// The daemon's whole answer is {0, 0}.
TEST_F(CompanionDaemonTest, LeavesStreamsOffThatItDoesNotTellOf) {
    daemon.bindSocket();
    tell({{0, 1}, {1, 1}, {2, 1}});
    believe();
    replaceDaemon();
    believe();
    tell({{0, 0}});
    EXPECT_THAT(believe(), ElementsAre(Pair(UAFD_USB_STATE, 0), Pair(UAFD_SPEAKER_STATE, 0),
                                       Pair(UAFD_MIC_STATE, 0), Pair(UAFD_DAEMON_STATE, 1)));
}

TEST_F(CompanionDaemonTest, IsNotBelievedWhenItIsGoneBeforeTheAppLooks) {
    tell({{0, 1}, {1, 1}});
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_EQ(companion.counts().datagrams_bad, 2U);
    daemon.bindSocket();
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}));
}

TEST_F(CompanionDaemonTest, IsAskedLaterWhenItTakesNoMessageYet) {
    daemon.bindSocket();
    uafd::Companion other;
    ASSERT_EQ(other.open(0, folder.path().c_str()), 0);
    for (int i = 0; i < 10000 && other.sync() == 0; ++i) {
    }
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}));
    EXPECT_EQ(companion.waitFor(10000), UAFD_READY_EVENT) << "it is to be tried again";
    daemon.messages();
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
    takeEvents();
    EXPECT_THAT(daemon.messages(), IsEmpty());
}

// An app may be able to receive without being allowed to send.
TEST_F(CompanionDaemonTest, IsHeardWhereItTakesNoMessageOfThisUser) {
    daemon.bindSocket();
    chmod(daemon.path("UdsIpcTx").c_str(), 0);
    chmod(folder.path().c_str(), 0777);
    const Unprivileged unprivileged;
    EXPECT_EQ(companion.sync(), -EACCES);
    tell({{0, 1}});
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}, Event{UAFD_USB_STATE, 1}));
}

TEST_F(CompanionDaemonTest, IsTheSameWhenItsSocketGetsOtherRights) {
    daemon.bindSocket();
    takeEvents();
    daemon.messages();
    chmod(daemon.path("UdsIpcTx").c_str(), 0777);
    EXPECT_THAT(takeEvents(), IsEmpty());
    EXPECT_THAT(daemon.messages(), IsEmpty());
}

// ---- While the app waits -----------------------------------------------------------------------

// Waits in its own thread; keeps the result.
class Waiter {
  public:
    explicit Waiter(uafd::Companion* companion)
        : thread([this, companion] {
              tid = gettid();
              result = companion->waitFor(20000);
          }) {}
    ~Waiter() {
        if (thread.joinable()) {
            thread.join();
        }
    }
    testing::AssertionResult fallsAsleep() const { return uafd::fallsAsleep(tid); }
    int found() {
        thread.join();
        return result;
    }

  private:
    std::atomic<int> tid{0};
    std::atomic<int> result{-1};
    std::thread thread;
};

TEST_F(CompanionDaemonTest, EndsAWaitWithItsEndAndItsBeginning) {
    daemon.bindSocket();
    takeEvents();
    {
        Waiter waiter(&companion);
        EXPECT_TRUE(waiter.fallsAsleep());
        daemon.end();
        EXPECT_EQ(waiter.found(), UAFD_READY_EVENT);
    }
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 0}));
    Waiter waiter(&companion);
    EXPECT_TRUE(waiter.fallsAsleep());
    daemon.bindSocket();
    EXPECT_EQ(waiter.found(), UAFD_READY_EVENT);
    EXPECT_THAT(takeEvents(), ElementsAre(Event{UAFD_DAEMON_STATE, 1}));
}

TEST_F(CompanionDaemonTest, KeepsAWaitReadyUntilAllIsTaken) {
    daemon.bindSocket();
    tell({{0, 1}, {1, 1}});
    takeEvents();
    replaceDaemon();
    std::vector<Event> told;
    for (int i = 0; i < 5 && companion.waitFor(1000) == UAFD_READY_EVENT; ++i) {
        const auto event = companion.nextEvent();
        ASSERT_TRUE(event);
        told.emplace_back(event->type, event->value);
    }
    EXPECT_THAT(told, ElementsAre(Event{UAFD_DAEMON_STATE, 0}, Event{UAFD_USB_STATE, 0},
                                  Event{UAFD_SPEAKER_STATE, 0}, Event{UAFD_DAEMON_STATE, 1}));
}

TEST_F(CompanionDaemonTest, IsLookedForFiveTimesASecond) {
    daemon.bindSocket();
    takeEvents();
    int64_t nowMs = 1000;
    int looks = 0;
    fake_sys::hooks().clock_gettime = [&](clockid_t, timespec* time) {
        *time = {nowMs / 1000, nowMs % 1000 * 1000000};
        return 0;
    };
    fake_sys::hooks().stat = [&](const char* path, struct stat* found) {
        ++looks;
        return fake_sys::real::stat(path, found);
    };
    for (; nowMs < 2000; ++nowMs) {
        companion.waitFor(0);
    }
    EXPECT_EQ(looks, 5);
}

TEST_F(CompanionDaemonTest, IsNotLookedForWithoutTheEvents) {
    ASSERT_EQ(open(UAFD_SOUND), 0);
    daemon.bindSocket();
    EXPECT_EQ(companion.waitFor(0), UAFD_READY_BLOCK);
    EXPECT_EQ(companion.waitFor(0), 0);
}

// Mainly for ThreadSanitizer: one thread waits, one takes events, any others send.
TEST_F(CompanionDaemonTest, IsLookedForByAWaitBesideAThreadThatTakesEvents) {
    std::atomic<bool> stop{false};
    std::thread taker([&] {
        for (int told = 0; told < 40; told += companion.nextEvent() ? 1 : 0) {
            std::this_thread::yield();
        }
        stop = true;
        companion.wake();
    });
    std::thread sender([&] {
        while (!stop) {
            companion.setSpeakerMute(true);
            std::this_thread::yield();
        }
    });
    std::thread waiter([&] {
        while (!stop) {
            companion.wait();
        }
    });
    while (!stop) {
        replaceDaemon();
        daemon.messages();
        std::this_thread::yield();
    }
    taker.join();
    sender.join();
    waiter.join();
}

}  // namespace
}  // namespace uafd
