// SPDX-License-Identifier: Apache-2.0
// The fixture of tests of the simulated hardware, without a daemon: the host and the module's
// events, and a PCM of the board as a test program uses it: alsa-lib's handle, opened, set up in
// the board's format and closed again. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include "board/kit/host.h"

namespace uafd {

class ModuleCase : public testing::Test {
  protected:
    void SetUp() override { host->reset(); }

    // Returns 0, or the errno with which the board refused the command.
    int command(const std::string& text) { return host->tryCommand(text); }
    int64_t counter(const std::string& key) const { return host->counter(key); }

    // What the module notes from this object's construction on.
    class Notes {
      public:
        explicit Notes(ModuleCase& module) : host(*module.host), taken(host.events().size()) {}

        // Everything since the last call.
        std::vector<board::HostEvent> take() {
            const std::vector<board::HostEvent>& all = host.events();
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(taken);
            taken = all.size();
            return {begin, all.end()};
        }
        // The texts of take(), without the host's own commands.
        std::vector<std::string> texts() {
            std::vector<std::string> texts;
            for (const board::HostEvent& event : take()) {
                if (event.text.rfind("host ", 0) != 0) {
                    texts.push_back(event.text);
                }
            }
            return texts;
        }

      private:
        board::Host& host;
        size_t taken;
    };

    // Empty while the module is unloaded.
    std::optional<board::Host> host{std::in_place};
};

class Pcm {
  public:
    explicit Pcm(snd_pcm_stream_t stream, const std::string& name = "hw:1")
        : openResult(snd_pcm_open(&pcm, name.c_str(), stream, 0)) {}
    ~Pcm() {
        if (pcm != nullptr) {
            snd_pcm_close(pcm);
        }
    }
    Pcm(const Pcm&) = delete;
    Pcm& operator=(const Pcm&) = delete;

    snd_pcm_t* get() const { return pcm; }
    int opened() const { return openResult; }
    int start() { return snd_pcm_start(pcm); }
    snd_pcm_state_t state() const { return snd_pcm_state(pcm); }

    // Sets the PCM up. Returns the name and error of the step that failed; "" when all went well.
    std::string setUp(snd_pcm_uframes_t buffer, snd_pcm_uframes_t period,
                      snd_pcm_uframes_t stopThreshold = 1 << 30) {
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        int dir = 0;
        const std::string failed =
            step("any", snd_pcm_hw_params_any(pcm, hw)) +
            step("access", snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED)) +
            step("format", snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16_LE)) +
            step("channels", snd_pcm_hw_params_set_channels(pcm, hw, 1)) +
            step("rate", snd_pcm_hw_params_set_rate_near(pcm, hw, &rate, &dir)) +
            step("buffer", snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &buffer)) +
            step("period", snd_pcm_hw_params_set_period_size_near(pcm, hw, &period, &dir)) +
            step("install", snd_pcm_hw_params(pcm, hw));
        return failed.empty() ? setThresholds(period, stopThreshold) : failed;
    }

    // Returns the number of frames, or the negative error.
    snd_pcm_sframes_t read(std::vector<int16_t>& frames) {
        return snd_pcm_readi(pcm, frames.data(), frames.size());
    }
    snd_pcm_sframes_t write(const std::vector<int16_t>& frames) {
        return snd_pcm_writei(pcm, frames.data(), frames.size());
    }

    unsigned rate = 48000;  // as granted

  private:
    std::string setThresholds(snd_pcm_uframes_t period, snd_pcm_uframes_t stopThreshold) {
        snd_pcm_sw_params_t* sw;
        snd_pcm_sw_params_alloca(&sw);
        return step("current", snd_pcm_sw_params_current(pcm, sw)) +
               step("start", snd_pcm_sw_params_set_start_threshold(pcm, sw, period)) +
               step("stop", snd_pcm_sw_params_set_stop_threshold(pcm, sw, stopThreshold)) +
               step("avail", snd_pcm_sw_params_set_avail_min(pcm, sw, period)) +
               step("sw_params", snd_pcm_sw_params(pcm, sw));
    }

    // Only the first failure counts, as later ones follow from it.
    std::string step(const char* name, int result) {
        if (result >= 0 || hasFailed) {
            return "";
        }
        hasFailed = true;
        return name + std::to_string(result);
    }

    snd_pcm_t* pcm = nullptr;
    const int openResult;
    bool hasFailed = false;
};

}  // namespace uafd
