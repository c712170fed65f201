// SPDX-License-Identifier: Apache-2.0
// The companion tool as a process beside the daemon's ends, in the test's folder.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <sndfile.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/daemon_ends.h"
#include "tests/unit/eventually.h"

namespace uafd {

using Samples = std::vector<int16_t>;

std::string contentsOf(const std::string& path);

class ToolTest : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }

    // Starts the tool in the test's folder.
    ChildProcess& start(std::vector<std::string> words, const std::function<void()>& prepare = {});
    int run(const std::vector<std::string>& words) { return start(words).wait(); }
    testing::AssertionResult waitForFile(const std::string& name) const;
    std::string file(const std::string& name) const { return folder.path() + "/" + name; }

    // `format` is one of libsndfile's.
    static void writeWav(const std::string& path, const Samples& samples, int channels, int rate,
                         int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    // Empty for a file that cannot be read.
    static Samples readWav(const std::string& path, SF_INFO* info);
    static Samples ramp(size_t count);
    // The left samples of the tool's sound, block by block, until the condition holds.
    Samples recordUntil(const std::function<bool(const Samples&)>& condition);

    TempDir folder;
    DaemonEnds daemon{folder};
    std::optional<ChildProcess> tool;
};

}  // namespace uafd
