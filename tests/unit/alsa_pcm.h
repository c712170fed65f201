// SPDX-License-Identifier: Apache-2.0
// A PCM of the device uafd in the test's folder, and the daemon's ends of its FIFO. One thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/daemon_ends.h"
#include "tests/unit/alsa_config.h"

namespace uafd {

struct PcmSetup {
    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    unsigned channels = 2;
    unsigned rate = 48000;
    // The default is the largest: no delay of the machine makes the ring run over or empty.
    snd_pcm_uframes_t bufferFrames = 96000;
    snd_pcm_uframes_t periodFrames = 480;
};

class AlsaPcm : public testing::Test {
  protected:
    ~AlsaPcm() override {
        close();
        if (otherApp >= 0) {
            ::close(otherApp);
        }
    }

    std::string device() const { return "uafd:" + folder.path(); }
    int open(snd_pcm_stream_t direction, int mode = 0) { return open(device(), direction, mode); }
    int open(const std::string& name, snd_pcm_stream_t direction, int mode = 0) {
        return snd_pcm_open_lconf(&pcm, name.c_str(), direction, mode, config.get());
    }
    void close() {
        if (pcm != nullptr) {
            EXPECT_EQ(snd_pcm_close(std::exchange(pcm, nullptr)), 0);
        }
    }
    // Returns what refused the setup, or 0.
    int setUp(const PcmSetup& setup = {}) {
        snd_pcm_hw_params_t* params = nullptr;
        snd_pcm_hw_params_alloca(&params);
        snd_pcm_hw_params_any(pcm, params);
        int error = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED);
        error = error < 0 ? error : snd_pcm_hw_params_set_format(pcm, params, setup.format);
        error = error < 0 ? error : snd_pcm_hw_params_set_channels(pcm, params, setup.channels);
        error = error < 0 ? error : snd_pcm_hw_params_set_rate(pcm, params, setup.rate, 0);
        error = error < 0 ? error
                          : snd_pcm_hw_params_set_period_size(pcm, params, setup.periodFrames, 0);
        error =
            error < 0 ? error : snd_pcm_hw_params_set_buffer_size(pcm, params, setup.bufferFrames);
        return error < 0 ? error : snd_pcm_hw_params(pcm, params);
    }
    // The PCM does not start by itself.
    void setThresholds(snd_pcm_uframes_t availableMin, bool stopsAtXrun = true) {
        snd_pcm_sw_params_t* params = nullptr;
        snd_pcm_uframes_t boundary = 0;
        snd_pcm_sw_params_alloca(&params);
        snd_pcm_sw_params_current(pcm, params);
        snd_pcm_sw_params_get_boundary(params, &boundary);
        snd_pcm_sw_params_set_start_threshold(pcm, params, boundary);
        snd_pcm_sw_params_set_avail_min(pcm, params, availableMin);
        if (!stopsAtXrun) {
            snd_pcm_sw_params_set_stop_threshold(pcm, params, boundary);
        }
        ASSERT_EQ(snd_pcm_sw_params(pcm, params), 0);
    }
    void openReady(snd_pcm_stream_t direction, const PcmSetup& setup = {}, int mode = 0) {
        ASSERT_EQ(open(direction, mode), 0) << config.said();
        ASSERT_EQ(setUp(setup), 0) << config.said();
        setThresholds(setup.periodFrames);
    }
    // What poll and ALSA say about the PCM within the time.
    unsigned short pollFor(int milliseconds) {
        pollfd source{};
        unsigned short revents = 0;
        EXPECT_EQ(snd_pcm_poll_descriptors(pcm, &source, 1), 1);
        poll(&source, 1, milliseconds);
        EXPECT_EQ(snd_pcm_poll_descriptors_revents(pcm, &source, 1, &revents), 0);
        return revents;
    }
    // Polls until ALSA says something about the PCM.
    unsigned short pollLong() {
        for (;;) {
            const unsigned short revents = pollFor(20000);
            if (revents != 0) {
                return revents;
            }
        }
    }

    // The daemon opens its ends. It needs the other FIFO too, so the test is that one's app.
    void openDaemon(const std::string& otherFifo) {
        const std::string path = daemon.path(otherFifo);
        mkfifo(path.c_str(), 0600);
        otherApp = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
        ASSERT_GE(otherApp, 0);
        ASSERT_TRUE(daemon.openFifos());
    }

    // Interleaved samples that are never 0.
    static std::vector<int16_t> samplesFrom(int first, size_t frames) {
        std::vector<int16_t> samples(2 * frames);
        for (size_t i = 0; i < samples.size(); ++i) {
            samples[i] = static_cast<int16_t>((static_cast<size_t>(first) + i) % 30000 + 1);
        }
        return samples;
    }

    TempDir folder;
    DaemonEnds daemon{folder};
    AlsaConfig config{"pcm.converted { type plug slave.pcm \"" + device() + "\" }\n"};
    int otherApp = -1;
    snd_pcm_t* pcm = nullptr;
};

}  // namespace uafd
