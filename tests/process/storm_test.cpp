// SPDX-License-Identifier: Apache-2.0
// The whole daemon as a process under the sanitizers, in a storm of everything that can happen to
// it. UAFD_STORM_STEPS makes the storm longer, UAFD_STORM_SEED makes it another one.
#include "tests/process/storm.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/uac_user.h"

namespace uafd {

using process::App;
using process::Daemon;
using process::Storm;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int kStepsDefault = 2000;
constexpr int kReported = 99;  // exit status after a report

int fromEnvironment(const char* name, int otherwise) {
    const char* const value = getenv(name);
    return value != nullptr ? atoi(value) : otherwise;
}

// A sanitizer's report, or else what the daemon was doing.
std::string whatHappened(const Daemon& daemon) {
    const std::string report = daemon.report();
    return report.empty() ? "no report; the daemon:\n" + daemon.state() : report;
}

class StormTest : public testing::Test {
  protected:
    explicit StormTest()
        : seed(static_cast<uint32_t>(fromEnvironment("UAFD_STORM_SEED", 1))), storm(seed) {}

    void SetUp() override {
        std::cout << "seed " << seed << std::endl;
        ASSERT_TRUE(storm.begin()) << whatHappened(storm.daemon);
    }

    // Both streams run, and the app hears, speaks and gets their states.
    void expectToServe() {
        App& app = storm.app;
        ASSERT_TRUE(storm.calmDown()) << whatHappened(daemon);
        ASSERT_TRUE(daemon.waitFor([&] { return app.lastOf(1) == 0 && app.lastOf(2) == 0; }))
            << whatHappened(daemon);
        daemon.record(F_UAC_VEXA_USER_EVT_SPK_ACTIVE, 1);
        daemon.record(F_UAC_VEXA_USER_EVT_MIC_ACTIVE, 1);
        const uint64_t heard = app.heardBytes();
        const uint64_t said = app.saidBytes();
        EXPECT_TRUE(daemon.waitFor([&] {
            return app.heardBytes() > heard + 100000 && app.saidBytes() > said + 100000 &&
                   app.lastOf(1) == 1 && app.lastOf(2) == 1;
        })) << whatHappened(daemon);
        EXPECT_EQ(0U, app.tornFrames());
    }

    void record(const std::string& what, int times, int atLeast) {
        EXPECT_GE(times, atLeast) << what;
        std::cout << what << ": " << times << std::endl;
        std::string name = what;
        for (char& letter : name) {
            letter = isalnum(letter) != 0 ? letter : '_';
        }
        RecordProperty(name, times);
    }

    const uint32_t seed;
    Storm storm;
    Daemon& daemon = storm.daemon;
};

TEST_F(StormTest, LeavesNoReport) {
    const int steps = fromEnvironment("UAFD_STORM_STEPS", kStepsDefault);
    const int descriptors = daemon.descriptors();
    const int threads = daemon.threads();
    ASSERT_TRUE(storm.rage(steps)) << whatHappened(daemon);
    expectToServe();
    // As many descriptors as before, and two for FIFOs; as many threads, and three for the
    // channels. State files are open only for moments.
    EXPECT_TRUE(daemon.waitFor([&] { return daemon.descriptors() <= descriptors + 2; }));
    EXPECT_LE(daemon.threads(), threads + 3);
    const int code = daemon.end();
    EXPECT_EQ(0, code) << whatHappened(daemon);
    EXPECT_THAT(daemon.report(), IsEmpty());

    // The storm must have caused all of this.
    const int some = steps / 2000;
    for (const auto& [what, times] : storm.done()) {
        record("did " + what, times, some);
    }
    record("deaths of the app", storm.app.deaths(), steps / 40);
    record("streams opened", daemon.count("start, opening"), steps / 20);
    record("streams stopped", daemon.count("UAF channel stopped"), steps / 20);
    record("stops cancelled", daemon.count("stopDelayCnt ="), some);
    record("xruns recovered", daemon.count("run..."), some);
    record("backlogs dropped", daemon.count("too much samples"), some);
    record("suspends recovered", daemon.count("suspend..."), some);
    record("starts that failed", daemon.count("failed to start audio"), some);
    record("cable restarts", daemon.count("Issue: setprop"), some);
    record("queue overwrites", daemon.count("overwriting msg"), some);
    record("messages to the app", static_cast<int>(storm.app.messages()), some);
    record("requests of the app", daemon.count("got speaker volume"), some);
}

// After this mistake of an app the daemon never receives from it again.
TEST_F(StormTest, EmptyDatagramLeavesNoReport) {
    daemon.datagram("");
    EXPECT_TRUE(daemon.waitFor([this] { return daemon.count("receive error: <0:") == 1; }));
    expectToServe();
    EXPECT_EQ(0, daemon.end()) << whatHappened(daemon);
}

TEST_F(StormTest, AppThatStarvesTheFrameBufferLeavesNoReport) {
    storm.app.slowDown();
    expectToServe();
    EXPECT_TRUE(daemon.waitFor([this] { return daemon.count("increased ssrs queue depth") == 1; }))
        << whatHappened(daemon);
    EXPECT_EQ(0, daemon.end()) << whatHappened(daemon);
}

// The only test in which the daemon ends by itself.
TEST(ProcessTest, FailedStartLeavesNoReport) {
    const process::Root root;
    std::filesystem::create_directory(root.path(process::kSocketTx));
    root.makeFifos();
    App app(root);
    app.start();
    Daemon daemon(root);
    EXPECT_EQ(255, daemon.exitStatus()) << whatHappened(daemon);
    EXPECT_EQ(1, daemon.count("failed to initialized IPC ... exiting"));
    EXPECT_THAT(daemon.report(), IsEmpty());
}

struct Planted {
    const char* defect;
    const char* report;
};

class PlantedTest : public StormTest, public testing::WithParamInterface<Planted> {};

// Shows that the sanitizers watch the process.
TEST_P(PlantedTest, IsReported) {
    daemon.command(std::string("plant ") + GetParam().defect);
    EXPECT_EQ(kReported, daemon.end());
    EXPECT_THAT(daemon.report(), HasSubstr(GetParam().report));
}

const std::vector<Planted> kPlanted {
#if __has_feature(thread_sanitizer)
    {"race", "data race"},
#else
    {"use", "heap-use-after-free"}, {"leak", "detected memory leaks"},
        {"shift", "runtime error: left shift of"},
#endif
};

INSTANTIATE_TEST_SUITE_P(Storm, PlantedTest, testing::ValuesIn(kPlanted),
                         [](const auto& info) { return std::string(info.param.defect); });

}  // namespace
}  // namespace uafd
