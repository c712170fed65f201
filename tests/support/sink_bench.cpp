// SPDX-License-Identifier: Apache-2.0
#include "tests/support/sink_bench.h"

namespace uafd::sink_bench {

Period Test::stereoFrom(uint64_t frame) {
    Period period;
    for (uint64_t i = 0; i < kPeriodSamples / 2; ++i) {
        period.insert(period.end(), 2, fake_alsa::capturedSample(frame + i));
    }
    return period;
}

void Test::SetUp() {
    fake_new::reset();
    // Without the board's own card the start synchronisation fails at once, so every period is
    // written.
    files.install();
    threads.install();
    threads.onSleep = [this](long ns) { pausesNs.push_back(ns); };
    fake_sys::hooks().sigaction = [](auto...) { return 0; };
    fifo.install(kPeriodSamples * sizeof(int16_t));
    fifo.onWrite = [this](const int16_t* samples, size_t bytes) {
        written.emplace_back(samples, samples + kPeriodSamples);
        return onWrite ? onWrite(static_cast<int>(written.size())) : static_cast<ssize_t>(bytes);
    };
    fake_alsa::hooks().before = [this](const std::string& call) { onAlsaCall(call); };
    snk = std::make_unique<UafSnk>();
    snk->setDevName(kFifoRxPath, "hw:1");
}

void Test::TearDown() {
    fake_alsa::hooks().before = nullptr;
    snk.reset();
    fake_new::reset();
    fake_sys::Test::TearDown();
}

// The first alsa-lib call of every pass asks for the state.
void Test::onAlsaCall(const std::string& call) {
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

void Test::run(int passes) {
    ASSERT_EQ(0, snk->intfUpdate(true));
    runLoop(passes);
}

void Test::runLoop(int passes) {
    pass = 0;
    switchOffInPass = passes - 3;
    if (switchOffInPass == 0) {
        snk->intfUpdate(false);
    }
    snk->uafLoop();
    EXPECT_EQ(passes, pass);
}

void Test::runUntilStopped() {
    switchOffInPass = 1000;
    ASSERT_EQ(0, snk->intfUpdate(true));
    snk->uafLoop();
    ASSERT_LT(pass, 1000) << "the channel did not stop itself";
}

}  // namespace uafd::sink_bench
