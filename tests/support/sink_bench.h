// SPDX-License-Identifier: Apache-2.0
// Drives the sink channel through its public interface: no worker is created, and its loop runs on
// the test's thread against the fake card and a FIFO that keeps what is written to it.
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

class Test : public fake_alsa::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // On, exactly this many passes (at least 3), and off.
    void run(int passes);
    void runLoop(int passes);
    // On, and passes until the channel has stopped by itself.
    void runUntilStopped();

    static Period silence() { return Period(kPeriodSamples, 0); }
    // The stereo period that begins with this captured frame.
    static Period stereoFrom(uint64_t frame);
    // What the log holds under the channel's own tag.
    static std::vector<fake_log::Line> log() { return fake_log::kSinkLog.lines(); }

    FakeFiles files;
    std::unique_ptr<UafSnk> snk;
    std::vector<std::string> events;  // the FIFO's life, in order
    FakeFifo fifo{events};
    FakeThreads threads;
    std::vector<Period> written;  // every attempted write
    std::vector<int64_t> pausesNs;
    std::vector<int> checks;  // the pass of every snd_pcm_avail_update
    std::function<void(int)> onPass;
    std::function<ssize_t(int)> onWrite;  // the result of the write with this number
    int pass = 0;
    int switchOffInPass = 0;

  private:
    void onAlsaCall(const std::string& call);
};

}  // namespace uafd::sink_bench
