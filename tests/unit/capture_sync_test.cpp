// SPDX-License-Identifier: Apache-2.0
// The sink's start synchronisation: where the capture's start time comes from, and which period is
// the first one written.
#include "channel/capture_sync.h"

#include <cerrno>
#include <ctime>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_log.h"

namespace uafd {
namespace {

using fake_log::kSinkLog;
using fake_log::Line;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kIdPath[] = "/proc/asound/card0/id";
constexpr char kPcm0Path[] = "/proc/asound/card0/pcm0c/sub0/status";
constexpr char kPcm1Path[] = "/proc/asound/card0/pcm1c/sub0/status";

constexpr char kRunningStatus[] =
    "state: RUNNING\n"
    "owner_pid   : 415\n"
    "trigger_time: 1699999000.111111111\n"
    "tstamp      : 1700000000.123456789\n"
    "delay       : 480\n";
constexpr int64_t kRunningSinceNs = 1700000000123456789;

class CaptureSyncTest : public fake_sys::Test {
  protected:
    void SetUp() override { files.install(); }

    FakeFiles files;
};

// ---- The start time ----------------------------------------------------------------------------

class MicCaptureTimestampTest : public CaptureSyncTest {
  protected:
    // The start time that results from a status file with this text.
    int64_t timestampOf(const std::string& status) {
        files.put(kIdPath, "rockchiprt5640c\n");
        files.put(kPcm0Path, status);
        const int64_t timestampNs = micCaptureTimestamp();
        EXPECT_EQ(0, files.openNow);
        EXPECT_THAT(fake_log::lines(), IsEmpty());
        return timestampNs;
    }
    static std::string lines(int count) {
        std::string text;
        for (int i = 0; i < count; ++i) {
            text += "line\n";
        }
        return text;
    }
    // The status file that is read when the card's id file has this text.
    std::string statusPathFor(const std::string& cardId) {
        files.put(kIdPath, cardId);
        files.put(kPcm0Path, kRunningStatus);
        files.put(kPcm1Path, kRunningStatus);
        files.events.clear();
        EXPECT_EQ(kRunningSinceNs, micCaptureTimestamp());
        EXPECT_EQ(4u, files.events.size());
        return files.events[1].substr(sizeof "open " - 1);
    }
};

TEST_F(MicCaptureTimestampTest, CardIdSelectsTheStatusFile) {
    EXPECT_EQ(kPcm0Path, statusPathFor("rockchiprt5640c\n"));
    EXPECT_EQ(kPcm0Path, statusPathFor("tarvine\n"));
    EXPECT_EQ(kPcm1Path, statusPathFor("HDMI\n"));
}

TEST_F(MicCaptureTimestampTest, CardIdMayStandAnywhereInTheFirstLine) {
    EXPECT_EQ(kPcm0Path, statusPathFor("the-tarvine-card\n"));
    EXPECT_EQ(kPcm0Path, statusPathFor("xrockchiprt5640cx"));
    EXPECT_EQ(kPcm0Path, statusPathFor("rockchiprt5640c tarvine\n"));
    EXPECT_EQ(kPcm1Path, statusPathFor("other\ntarvine\n"));
}

TEST_F(MicCaptureTimestampTest, CardIdIsCaseSensitive) {
    EXPECT_EQ(kPcm1Path, statusPathFor("Tarvine\n"));
    EXPECT_EQ(kPcm1Path, statusPathFor("rockchipRT5640c\n"));
    EXPECT_EQ(kPcm1Path, statusPathFor("rockchiprt5640\n"));
}

TEST_F(MicCaptureTimestampTest, CardIdLineEndsAfter79Characters) {
    EXPECT_EQ(kPcm0Path, statusPathFor(std::string(72, 'x') + "tarvine\n"));
    EXPECT_EQ(kPcm1Path, statusPathFor(std::string(73, 'x') + "tarvine\n"));
}

TEST_F(MicCaptureTimestampTest, IdFileIsClosedOnceTheStatusFileIsOpen) {
    timestampOf(kRunningStatus);
    EXPECT_THAT(files.events,
                ElementsAre(std::string("open ") + kIdPath, std::string("open ") + kPcm0Path,
                            std::string("close ") + kIdPath, std::string("close ") + kPcm0Path));
}

// Log readers expect both lines, although the status file was never opened.
TEST_F(MicCaptureTimestampTest, MissingIdFileIsReportedTogetherWithTheStatusFile) {
    files.refuse(kIdPath, EACCES);
    files.put(kPcm1Path, kRunningStatus);
    EXPECT_EQ(-1, micCaptureTimestamp());
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kSinkLog.error("Failed to open /proc/asound/card0/id: Permission denied"),
                    kSinkLog.error(
                        "Failed to open /proc/asound/card0/pcm1c/sub0/status: Permission denied")));
    EXPECT_THAT(files.events, ElementsAre(std::string("refused ") + kIdPath));
}

TEST_F(MicCaptureTimestampTest, UnreadableIdIsReportedTogetherWithTheStatusFile) {
    files.breakOff(kIdPath, "", EIO);
    files.put(kPcm1Path, kRunningStatus);
    EXPECT_EQ(-1, micCaptureTimestamp());
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kSinkLog.error("Failed to determine card type for: /proc/asound/card0/id"),
                    kSinkLog.error("Failed to open /proc/asound/card0/pcm1c/sub0/status: "
                                   "Input/output error")));
    EXPECT_THAT(files.events,
                ElementsAre(std::string("open ") + kIdPath, std::string("close ") + kIdPath));
}

TEST_F(MicCaptureTimestampTest, EmptyIdIsNoCardType) {
    files.put(kIdPath, "");
    EXPECT_EQ(-1, micCaptureTimestamp());
    ASSERT_EQ(2u, fake_log::lines().size());
    EXPECT_EQ(kSinkLog.error("Failed to determine card type for: /proc/asound/card0/id"),
              fake_log::lines()[0]);
    EXPECT_EQ(0, files.openNow);
}

TEST_F(MicCaptureTimestampTest, MissingStatusFileIsReportedByItsPath) {
    files.put(kIdPath, "tarvine\n");
    files.refuse(kPcm0Path, EMFILE);
    EXPECT_EQ(-1, micCaptureTimestamp());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kSinkLog.error(
                    "Failed to open /proc/asound/card0/pcm0c/sub0/status: Too many open files")));
    EXPECT_EQ(0, files.openNow);
}

TEST_F(MicCaptureTimestampTest, MissingStatusFileOfAnUnknownCardIsThatOfPcm1) {
    files.put(kIdPath, "HDMI\n");
    EXPECT_EQ(-1, micCaptureTimestamp());
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kSinkLog.error(
            "Failed to open /proc/asound/card0/pcm1c/sub0/status: No such file or directory")));
}

TEST_F(MicCaptureTimestampTest, RunningStreamGivesItsTimeStampInNanoseconds) {
    EXPECT_EQ(kRunningSinceNs, timestampOf(kRunningStatus));
    EXPECT_EQ(12000000034, timestampOf("state: RUNNING\ntstamp      : 12.000000034\n"));
}

TEST_F(MicCaptureTimestampTest, StreamThatIsNotRunningGivesNone) {
    EXPECT_EQ(-1, timestampOf(""));
    EXPECT_EQ(-1, timestampOf("closed\n"));
    EXPECT_EQ(-1, timestampOf("state: PREPARED\ntstamp      : 12.000000034\n"));
    EXPECT_EQ(-1, timestampOf("state: RUNNING\n"));
}

TEST_F(MicCaptureTimestampTest, TimeStampBeforeTheStateDoesNotCount) {
    EXPECT_EQ(-1, timestampOf("tstamp      : 12.000000034\nstate: RUNNING\n"));
    EXPECT_EQ(13000000000,
              timestampOf("tstamp      : 12.0\nstate: RUNNING\ntstamp      : 13.000000000\n"));
}

TEST_F(MicCaptureTimestampTest, StateAndTimeStampMayShareALine) {
    EXPECT_EQ(12000000034, timestampOf("tstamp      : 12.000000034 state: RUNNING\n"));
}

TEST_F(MicCaptureTimestampTest, OnceRunningStaysRunning) {
    EXPECT_EQ(12000000034,
              timestampOf("state: RUNNING\nstate: XRUN\ntstamp      : 12.000000034\n"));
}

TEST_F(MicCaptureTimestampTest, LineThatDoesNotScanIsPassedOver) {
    EXPECT_EQ(12000000034, timestampOf("state: RUNNING\n"
                                       "audio_tstamp: 5.000000000\n"
                                       "tstamp      : none\n"
                                       "tstamp      : 7\n"
                                       "tstamp      : 12.000000034\n"));
}

TEST_F(MicCaptureTimestampTest, ElevenLinesAreRead) {
    const std::string stamp = "tstamp      : 12.000000034\n";
    EXPECT_EQ(12000000034, timestampOf("state: RUNNING\n" + lines(9) + stamp));
    EXPECT_EQ(-1, timestampOf("state: RUNNING\n" + lines(10) + stamp));
}

TEST_F(MicCaptureTimestampTest, LineOfMoreThan79CharactersIsTwo) {
    const std::string longest = std::string(78, 'x') + '\n';
    const std::string tooLong = std::string(79, 'x') + '\n';
    const std::string stamp = "tstamp      : 12.000000034\n";
    EXPECT_EQ(12000000034, timestampOf("state: RUNNING\n" + longest + lines(8) + stamp));
    EXPECT_EQ(-1, timestampOf("state: RUNNING\n" + tooLong + lines(8) + stamp));
}

TEST_F(MicCaptureTimestampTest, FailedReadEndsTheSearch) {
    files.put(kIdPath, "tarvine\n");
    files.breakOff(kPcm0Path, "state: RUNNING\n", EIO);
    EXPECT_EQ(-1, micCaptureTimestamp());
    EXPECT_EQ(0, files.openNow);
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(MicCaptureTimestampTest, AbsurdTimeDoesNotOverflow) {
    timestampOf("state: RUNNING\ntstamp      : 9223372036854775807.999999999\n");
    timestampOf("state: RUNNING\ntstamp      : -9223372036854775807.999999999\n");
}

// ---- The first period written ------------------------------------------------------------------

class SynchStartupTest : public CaptureSyncTest {
  protected:
    static constexpr int64_t kStartNs = 1700000000000000000;

    void SetUp() override {
        CaptureSyncTest::SetUp();
        captureStartedAt("1700000000.000000000");
        fake_sys::hooks().clock_gettime = [this](clockid_t clock, timespec* now) {
            EXPECT_EQ(CLOCK_REALTIME, clock);
            ++clockReads;
            now->tv_sec = nowNs / 1000000000;
            now->tv_nsec = nowNs % 1000000000;
            return 0;
        };
    }
    void captureStartedAt(const std::string& time) {
        files.put(kIdPath, "tarvine\n");
        files.put(kPcm0Path, "state: RUNNING\ntstamp      : " + time + "\n");
    }
    // The result of a first call at this time after the capture's start.
    int atPhase(int64_t sinceStartNs) {
        synch = SynchStartupState();
        nowNs = kStartNs + sinceStartNs;
        return synchStartup(240, &synch);
    }
    int repeated(int calls, int frames, int expected) {
        for (int i = 0; i < calls; ++i) {
            if (synchStartup(frames, &synch) != expected) {
                return i;
            }
        }
        return calls;
    }

    SynchStartupState synch;
    int64_t nowNs = kStartNs;
    int clockReads = 0;
};

constexpr int64_t kMs = 1000000;

TEST_F(SynchStartupTest, StartsWithNothingDone) {
    EXPECT_EQ(SYNCH_NOT_STARTED, synch.state);
    EXPECT_EQ(0, SYNCH_NOT_STARTED);
    EXPECT_EQ(1, SYNCH_WAITING);
    EXPECT_EQ(2, SYNCH_FINISHED);
}

TEST_F(SynchStartupTest, PeriodInThePhaseRangeIsHeldBack) {
    for (const int64_t ns : {3500000L, 5 * kMs, 8499999L, 13500000L, 18499999L, 1000005 * kMs}) {
        EXPECT_EQ(1, atPhase(ns)) << ns;
        EXPECT_EQ(SYNCH_WAITING, synch.state) << ns;
    }
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(SynchStartupTest, PeriodOutsideThePhaseRangeIsWritten) {
    for (const int64_t ns :
         {0L, 2 * kMs, 3499999L, 8500000L, 9 * kMs, 9999999L, 10 * kMs, 13499999L, 18500000L}) {
        fake_log::clear();
        EXPECT_EQ(0, atPhase(ns)) << ns;
        EXPECT_EQ(SYNCH_FINISHED, synch.state) << ns;
        EXPECT_THAT(fake_log::lines(), ElementsAre(kSinkLog.debug("synch startup ok")));
    }
}

// The phase of such a start is negative, outside the range.
TEST_F(SynchStartupTest, StartInTheFutureIsWritten) {
    for (const int64_t ns : {-1L, -2 * kMs, -5 * kMs, -6500000L, -9999999L, -15 * kMs}) {
        EXPECT_EQ(0, atPhase(ns)) << ns;
    }
}

TEST_F(SynchStartupTest, FollowsTheClockFromPeriodToPeriod) {
    EXPECT_EQ(1, atPhase(4 * kMs));
    nowNs += 4 * kMs;
    EXPECT_EQ(1, synchStartup(240, &synch));
    nowNs += 1 * kMs;
    EXPECT_EQ(0, synchStartup(240, &synch));
    EXPECT_EQ(3, clockReads);
}

TEST_F(SynchStartupTest, StartTimeIsReadOnce) {
    EXPECT_EQ(1, atPhase(4 * kMs));
    const auto events = files.events;
    captureStartedAt("1700000000.004000000");
    EXPECT_EQ(1, synchStartup(240, &synch));
    EXPECT_EQ(events, files.events);
}

// The worker calls this for every period of the stream.
TEST_F(SynchStartupTest, FinishedTouchesNeitherFilesNorClock) {
    EXPECT_EQ(0, atPhase(0));
    files.events.clear();
    clockReads = 0;
    nowNs += 5 * kMs;
    EXPECT_EQ(0, synchStartup(240, &synch));
    EXPECT_EQ(0, synchStartup(0, &synch));
    EXPECT_THAT(files.events, IsEmpty());
    EXPECT_EQ(0, clockReads);
    EXPECT_EQ(1u, fake_log::lines().size());
}

TEST_F(SynchStartupTest, FirstPeriodWithoutFramesWaits) {
    EXPECT_EQ(1, synchStartup(0, &synch));
    EXPECT_EQ(SYNCH_WAITING, synch.state);
    EXPECT_EQ(0, clockReads);
    EXPECT_EQ(599, repeated(599, 0, 1));
    EXPECT_EQ(-1, synchStartup(0, &synch));
}

TEST_F(SynchStartupTest, OneFrameIsAPeriod) {
    EXPECT_EQ(0, synchStartup(1, &synch));
}

TEST_F(SynchStartupTest, SixHundredPeriodsMayBeHeldBack) {
    nowNs += 5 * kMs;
    EXPECT_EQ(600, repeated(600, 240, 1));
    nowNs += 5 * kMs;
    clockReads = 0;
    EXPECT_EQ(-1, synchStartup(240, &synch));
    EXPECT_EQ(0, clockReads);
    EXPECT_EQ(SYNCH_FINISHED, synch.state);
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSinkLog.error("synch startup failed")));
    EXPECT_EQ(0, synchStartup(240, &synch));
}

TEST_F(SynchStartupTest, LastTryMaySucceed) {
    EXPECT_EQ(599, repeated(599, 0, 1));
    EXPECT_EQ(0, synchStartup(240, &synch));
}

TEST_F(SynchStartupTest, EveryStartHasItsTriesAndItsStartTime) {
    nowNs += 5 * kMs;
    EXPECT_EQ(600, repeated(600, 240, 1));
    synch = SynchStartupState();
    EXPECT_EQ(600, repeated(600, 240, 1));
    synch = SynchStartupState();
    captureStartedAt("1700000000.005000000");
    EXPECT_EQ(0, synchStartup(240, &synch));
}

TEST_F(SynchStartupTest, UnknownStartTimeFailsAtOnce) {
    files.put(kPcm0Path, "state: PREPARED\n");
    EXPECT_EQ(-1, synchStartup(240, &synch));
    EXPECT_EQ(SYNCH_FINISHED, synch.state);
    EXPECT_EQ(0, clockReads);
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSinkLog.error("synch startup failed")));
    EXPECT_EQ(0, synchStartup(240, &synch));
}

TEST_F(SynchStartupTest, FileErrorFailsAtOnce) {
    files.refuse(kPcm0Path, ENOENT);
    EXPECT_EQ(-1, synchStartup(0, &synch));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kSinkLog.error("Failed to open /proc/asound/card0/pcm0c/sub0/status: No such "
                                   "file or directory"),
                    kSinkLog.error("synch startup failed")));
}

TEST_F(SynchStartupTest, StartTimeMustBePositive) {
    captureStartedAt("0.000000000");
    EXPECT_EQ(-1, synchStartup(240, &synch));
    captureStartedAt("0.000000001");
    synch = SynchStartupState();
    nowNs = 1;
    EXPECT_EQ(0, synchStartup(240, &synch));
}

TEST_F(SynchStartupTest, UnknownStateFails) {
    for (const int32_t state : {-1, 3}) {
        fake_log::clear();
        synch.state = state;
        EXPECT_EQ(-1, synchStartup(240, &synch));
        EXPECT_EQ(SYNCH_FINISHED, synch.state);
        EXPECT_THAT(fake_log::lines(), ElementsAre(kSinkLog.error("synch startup failed")));
    }
    EXPECT_THAT(files.events, IsEmpty());
    EXPECT_EQ(0, clockReads);
}

}  // namespace
}  // namespace uafd
