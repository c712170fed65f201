// SPDX-License-Identifier: Apache-2.0
// Drives the sink channel through its public interface: no worker is created, and its loop runs on
// the test's thread with the fake card and a FIFO that keeps what is written to it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "channel/uaf_snk.h"
#include "ipc/app_paths.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_fifo.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_new.h"
#include "tests/support/fake_threads.h"

namespace uafd::sink_bench {

constexpr int64_t kNsPerMs = 1000000;
constexpr size_t kPeriodSamples = 480;  // of one period in the FIFO: 240 frames, stereo

using Period = std::vector<int16_t>;

class Test : public fake_sys::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Switches on, makes exactly this many passes (at least 3), and switches off.
    void run(int passes);
    void runLoop(int passes);
    // Switches on and makes passes until the channel stops by itself.
    void runUntilStopped();

    static Period silence() { return Period(kPeriodSamples, 0); }
    // The stereo period that starts with this captured frame.
    static Period stereoFrom(uint64_t frame);
    // The log's lines with the channel's own tag.
    static std::vector<fake_log::Line> log() { return fake_log::kSinkLog.lines(); }

    FakeFiles files;
    std::unique_ptr<UafSnk> snk;
    std::vector<std::string> events;  // the FIFO's, in order
    FakeFifo fifo{events};
    FakeThreads threads;
    std::vector<Period> written;  // every attempted write
    std::vector<int64_t> pausesNs;
    std::vector<int> checks;  // the number of the pass of every snd_pcm_avail_update
    std::function<void(int)> onPass;
    std::function<ssize_t(int)> onWrite;  // the result of the n-th write
    int pass = 0;
    int switchOffInPass = 0;

  private:
    void onAlsaCall(const std::string& call);
};

}  // namespace uafd::sink_bench
