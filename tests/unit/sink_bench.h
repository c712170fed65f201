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
#include "tests/support/fake_files.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"
#include "tests/unit/fake_fifo.h"
#include "tests/unit/fake_new.h"

namespace uafd::sink_bench {

constexpr int64_t kNsPerMs = 1000000;
constexpr size_t kPeriodSamples = 480;  // of one period in the FIFO: 240 frames, stereo

using Period = std::vector<int16_t>;

class Test : public fake_sys::Test {
  protected:
    void SetUp() override {
        memory.install();
        // Without the board's own card the start synchronisation fails at once, so every period is
        // written.
        files.install();
        threads.install();
        threads.onSleep = [this](long ns) { pausesNs.push_back(ns); };
        fake_sys::hooks().sigaction = [](auto...) { return 0; };
        fifo.install(kPeriodSamples * sizeof(int16_t));
        fifo.onWrite = [this](const int16_t* samples, size_t bytes) {
            written.emplace_back(samples, samples + kPeriodSamples);
            return onWrite ? onWrite(static_cast<int>(written.size()))
                           : static_cast<ssize_t>(bytes);
        };
        fake_alsa::hooks().before = [this](const std::string& call) { onAlsaCall(call); };
        snk = std::make_unique<UafSnk>();
        snk->setDevName(kFifoRxPath, "hw:1");
    }
    void TearDown() override {
        fake_alsa::hooks().before = nullptr;
        snk.reset();
        fake_sys::Test::TearDown();
    }

    // Switches on, makes exactly this many passes (at least 3), and switches off.
    void run(int passes) {
        ASSERT_EQ(0, snk->intfUpdate(true));
        runLoop(passes);
    }
    void runLoop(int passes) {
        pass = 0;
        switchOffInPass = passes - 3;
        if (switchOffInPass == 0) {
            snk->intfUpdate(false);
        }
        snk->uafLoop();
        EXPECT_EQ(passes, pass);
    }
    // Switches on and makes passes until the channel stops by itself.
    void runUntilStopped() {
        switchOffInPass = 1000;
        ASSERT_EQ(0, snk->intfUpdate(true));
        snk->uafLoop();
        ASSERT_LT(pass, 1000) << "the channel did not stop itself";
    }

    static Period silence() { return Period(kPeriodSamples, 0); }
    // The stereo period that starts with this captured frame.
    static Period stereoFrom(uint64_t frame) {
        Period period;
        for (uint64_t i = 0; i < kPeriodSamples / 2; ++i) {
            period.insert(period.end(), 2, fake_alsa::capturedSample(frame + i));
        }
        return period;
    }
    // The log's lines with the channel's own tag.
    static std::vector<fake_log::Line> log() { return fake_log::kSinkLog.lines(); }

    FakeNew memory;
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

  private:
    // The first alsa-lib call of every pass asks for the state.
    void onAlsaCall(const std::string& call) {
        if (call.find("snd_pcm_state(") == 0) {
            ++pass;
            if (pass == switchOffInPass) {
                snk->intfUpdate(false);
            }
            if (onPass) {
                onPass(pass);
            }
        }
        if (call.find("snd_pcm_avail_update(") == 0) {
            checks.push_back(pass);
        }
    }

    int switchOffInPass = 0;
};

}  // namespace uafd::sink_bench
