// SPDX-License-Identifier: Apache-2.0
// The example programs in docs/app.md do on the board what the page says they do.
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <uafd_companion.hpp>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using board::kRate;
using testing::StartsWith;

class CompanionExamples : public BoardCase {
  protected:
    CompanionExamples() { micService = std::make_unique<board::MicService>(); }

    ChildProcess& start(std::vector<std::string> words) {
        words[0].insert(0, "/tests/example_");
        return example.emplace(words);
    }
    uafd::Companion other;
    std::optional<ChildProcess> example;
};

TEST_F(CompanionExamples, RecordsAndLetsTheDaemonStart) {
    const board::HostPlayer player(board::ramp);
    start({"record", "/out/heard.raw"});
    startDaemon();
    host.command("speaker on");
    EXPECT_EQ(example->wait(), 0) << example->errors();
    const std::string bytes = board::contents("/out/heard.raw");
    ASSERT_EQ(bytes.size(), 5U * kRate * 4);
    const auto* const samples = reinterpret_cast<const int16_t*>(bytes.data());
    int breaks = 0;
    for (size_t i = 2; i < bytes.size() / 2; i += 2) {
        EXPECT_EQ(samples[i], samples[i + 1]) << i;
        breaks += samples[i] != static_cast<int16_t>(samples[i - 2] + 1) ? 1 : 0;
    }
    EXPECT_LE(breaks, 1) << "one from silence to sound";
}

TEST_F(CompanionExamples, LetsTheHostRecordATone) {
    ASSERT_EQ(other.open(UAFD_SPEAKER), 0);
    start({"tone"});
    startDaemon();
    host.command("mic on");
    EXPECT_EQ(example->wait(), 0) << example->errors();
    const board::Samples recorded = host.takeRecording();
    const size_t first = board::firstSound(recorded);
    ASSERT_GT(recorded.size() - first, 4U * kRate);
    int turns = 0;
    int peak = 0;
    for (size_t i = first + 1; i < first + 4 * kRate; ++i) {
        turns += recorded[i - 1] < 0 && recorded[i] >= 0 ? 1 : 0;
        peak = std::max(peak, std::abs(int{recorded[i]}));
    }
    EXPECT_NEAR(turns, 4 * 440, 5);
    EXPECT_NEAR(peak, 8000, 10);
}

TEST_F(CompanionExamples, SetsTheVolumeAndTellsWhatChanges) {
    ASSERT_EQ(other.open(UAFD_SOUND), 0);
    startDaemon();
    const board::Ns since = board::now();
    start({"volume", "-1280"});
    EXPECT_TRUE(
        board::waitFor([&] { return host.countEvents("uac SET_SPK_VOLUME -1280 0", since) == 1; }));
    const auto told = [this] { return example->output(); };
    EXPECT_TRUE(board::waitFor([&] { return told().find("microphone 0\n") != std::string::npos; }));
    EXPECT_THAT(told(), StartsWith("daemon 1\nusb 1\nspeaker 0\nmicrophone 0\n"));
    host.command("volume speaker -512");
    EXPECT_TRUE(
        board::waitFor([&] { return told().find("speaker volume -512\n") != std::string::npos; }));
    host.command("mic on");
    EXPECT_TRUE(board::waitFor([&] { return told().find("microphone 1\n") != std::string::npos; }));
    daemon.stop();
    EXPECT_TRUE(board::waitFor([&] { return told().find("daemon 0\n") != std::string::npos; }));
}

// Each example reports in one line what is wrong.
TEST_F(CompanionExamples, SayThatAnotherAppIsThere) {
    ASSERT_EQ(other.open(), 0);
    for (const char* name : {"record", "tone", "volume"}) {
        start({name});
        EXPECT_EQ(example->wait(), 1) << name;
        EXPECT_EQ(example->errors(), "an app has this part open already\n") << name;
    }
}

}  // namespace
}  // namespace uafd
