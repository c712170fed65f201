// SPDX-License-Identifier: Apache-2.0
// Drives the sink channel through its public interface: no worker is created, and its loop runs on
// the test's thread against the fake card and a FIFO that keeps what is written to it.
#pragma once

#include <cerrno>
#include <fcntl.h>
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
#include "tests/support/fake_new.h"

namespace snk_test {

constexpr int FIFO_FD = 77;
constexpr int GRANTED_PIPE_BYTES = 4096;
constexpr int64_t NS_PER_MS = 1000000;
constexpr size_t PERIOD_SAMPLES = 480;  // of one period in the FIFO: 240 frames, stereo

using Period = std::vector<int16_t>;

class Test : public fake_alsa::Test {
  protected:
    void SetUp() override {
        fake_alsa::Test::SetUp();
        fake_ipc::clear();
        fake_new::reset();
        // Without the board's own card the synchronisation fails at once: every period is written.
        files.install();
        auto& hooks = fake_sys::hooks();
        hooks.pthread_create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
            return 0;
        };
        hooks.pthread_join = [](pthread_t, void**) { return 0; };
        hooks.sigaction = [](int, const struct sigaction*, struct sigaction*) { return 0; };
        hooks.nanosleep = [this](const timespec* pause, timespec*) {
            pausesNs.push_back(pause->tv_sec * 1000 * NS_PER_MS + pause->tv_nsec);
            return 0;
        };
        hookFifo();
        fake_alsa::hooks().before = [this](const std::string& call) { onAlsaCall(call); };
        snk = std::make_unique<UafSnk>();
        snk->setDevName(FIFO_RX_PATH, "hw:1");
    }
    void TearDown() override {
        fake_alsa::hooks().before = nullptr;
        snk.reset();
        fake_new::reset();
        fake_alsa::Test::TearDown();
    }

    void hookFifo() {
        auto& hooks = fake_sys::hooks();
        hooks.open = [this](const char* path, int flags) {
            events.push_back("open " + std::string(path) + ' ' + std::to_string(flags));
            errno = ENOENT;
            return openResult;
        };
        hooks.close = [this](int fd) {
            events.push_back("close " + std::to_string(fd));
            return 0;
        };
        hooks.fcntl = [this](int fd, int command, long argument) {
            events.push_back(command == F_SETPIPE_SZ   ? "set pipe " + std::to_string(argument)
                             : command == F_GETPIPE_SZ ? "get pipe"
                                                       : "fcntl");
            EXPECT_EQ(openResult, fd);
            return command == F_GETPIPE_SZ ? GRANTED_PIPE_BYTES : -1;
        };
        hooks.write = [this](int fd, const void* data, size_t bytes) -> ssize_t {
            EXPECT_EQ(openResult, fd);
            EXPECT_EQ(960u, bytes);
            const auto* const samples = static_cast<const int16_t*>(data);
            written.emplace_back(samples, samples + PERIOD_SAMPLES);
            if (onWrite) {
                return onWrite(static_cast<int>(written.size()));
            }
            return static_cast<ssize_t>(bytes);
        };
    }

    // The first call of every pass asks for the state.
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

    // On, exactly this many passes (at least 3), and off.
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
    // On, and passes until the channel has stopped by itself.
    void runUntilStopped() {
        switchOffInPass = 1000;
        ASSERT_EQ(0, snk->intfUpdate(true));
        snk->uafLoop();
        ASSERT_LT(pass, 1000) << "the channel did not stop itself";
    }

    static std::vector<fake_log::Line> log() {
        std::vector<fake_log::Line> found;
        for (const fake_log::Line& line : fake_log::lines()) {
            if (line.tag == "UAFSNK") {
                found.push_back(line);
            }
        }
        return found;
    }

    static Period silence() { return Period(PERIOD_SAMPLES, 0); }
    // The stereo period that begins with this captured frame.
    static Period stereoFrom(uint64_t frame) {
        Period period;
        for (uint64_t i = 0; i < PERIOD_SAMPLES / 2; ++i) {
            period.insert(period.end(), 2, fake_alsa::capturedSample(frame + i));
        }
        return period;
    }

    FakeFiles files;
    std::unique_ptr<UafSnk> snk;
    std::vector<std::string> events;  // the FIFO's life, in order
    std::vector<Period> written;      // every attempted write
    std::vector<int64_t> pausesNs;
    std::vector<int> checks;  // the pass of every snd_pcm_avail_update
    std::function<void(int)> onPass;
    std::function<ssize_t(int)> onWrite;  // the result of the write with this number
    int openResult = FIFO_FD;
    int pass = 0;
    int switchOffInPass = 0;
};

}  // namespace snk_test
