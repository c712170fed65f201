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
#include "tests/board/app_recording.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using namespace board;
using testing::StartsWith;

class CompanionExamples : public BoardCase {
  protected:
    CompanionExamples() { micService = std::make_unique<MicService>(); }

    ChildProcess& start(std::vector<std::string> words) {
        words[0].insert(0, "/tests/example_");
        return example.emplace(words);
    }
    void expectToSay(const std::string& line) {
        EXPECT_TRUE(waitFor([&] { return example->output().find(line) != std::string::npos; }))
            << example->output();
    }

    uafd::Companion other;
    std::optional<ChildProcess> example;
};

TEST_F(CompanionExamples, RecordsAndLetsTheDaemonStart) {
    const HostPlayer player(ramp);
    start({"record", "/out/heard.raw"});
    startDaemon();
    host.command("speaker on");
    EXPECT_EQ(example->wait(), 0) << example->errors();
    const Samples heard = heardIn("/out/heard.raw");
    EXPECT_EQ(heard.size(), 5U * kRate);
    EXPECT_EQ(breaksIn(heard), 0);
}

TEST_F(CompanionExamples, LetsTheHostRecordATone) {
    ASSERT_EQ(other.open(UAFD_SPEAKER), 0);
    start({"tone"});
    startDaemon();
    host.command("mic on");
    EXPECT_EQ(example->wait(), 0) << example->errors();
    const Samples recorded = host.takeRecording();
    const size_t first = firstSound(recorded);
    ASSERT_GT(recorded.size() - first, 4U * kRate);
    const Samples tone(recorded.begin() + static_cast<std::ptrdiff_t>(first),
                       recorded.begin() + static_cast<std::ptrdiff_t>(first) + 4 * kRate);
    EXPECT_NEAR(upwardCrossings(tone, 0, tone.size()), 4 * 440, 5);
    EXPECT_NEAR(*std::max_element(tone.begin(), tone.end()), 8000, 10);
}

TEST_F(CompanionExamples, SetsTheVolumeAndTellsWhatChanges) {
    ASSERT_EQ(other.open(UAFD_SOUND), 0);
    startDaemon();
    const Ns since = now();
    start({"volume", "-1280"});
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_VOLUME -1280 0", since));
    expectToSay("microphone 0\n");
    EXPECT_THAT(example->output(), StartsWith("daemon 1\nusb 1\nspeaker 0\nmicrophone 0\n"));
    host.command("volume speaker -512");
    expectToSay("speaker volume -512\n");
    host.command("mic on");
    expectToSay("microphone 1\n");
    daemon.stop();
    expectToSay("daemon 0\n");
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
