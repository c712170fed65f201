// SPDX-License-Identifier: Apache-2.0
#include "bench/board/usb_sound.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace bench {
namespace {

using board::kMs;
using board::Ns;

constexpr int64_t kAppPeriodFrames = 240;
constexpr int64_t kAppBufferFrames = 2400;
// With these, all phases of a host's periods to those of the gadget's programs occur.
constexpr int64_t kHostPeriodFrames = 256;
constexpr int64_t kHostBufferFrames = 768;
constexpr int64_t kAppBlockFrames = 480;
constexpr Ns kAppBlock = 10 * kMs;
constexpr int kWaitMs = 100;

void require(int result, const std::string& what) {
    if (result < 0) {
        throw std::runtime_error(what + ": " + snd_strerror(result));
    }
}

int64_t periodFramesOf(End end) {
    return end == End::kHost ? kHostPeriodFrames : kAppPeriodFrames;
}

}  // namespace

TimedPcm::TimedPcm(const std::string& pcm, snd_pcm_stream_t direction, End end, size_t channels)
    : end(end), channels(channels) {
    snd_pcm_hw_params_t* hw;
    snd_pcm_hw_params_alloca(&hw);
    auto period = static_cast<snd_pcm_uframes_t>(periodFramesOf(end));
    snd_pcm_uframes_t buffer = end == End::kHost ? kHostBufferFrames : kAppBufferFrames;
    require(snd_pcm_open(&handle, pcm.c_str(), direction, 0), pcm);
    require(snd_pcm_hw_params_any(handle, hw), pcm);
    require(snd_pcm_hw_params_set_access(handle, hw, SND_PCM_ACCESS_RW_INTERLEAVED), "access");
    require(snd_pcm_hw_params_set_format(handle, hw, SND_PCM_FORMAT_S16_LE), "format");
    require(snd_pcm_hw_params_set_channels(handle, hw, static_cast<unsigned>(channels)),
            "channels");
    require(snd_pcm_hw_params_set_rate(handle, hw, board::kRate, 0), "rate");
    require(snd_pcm_hw_params_set_period_size_near(handle, hw, &period, nullptr), "period");
    require(snd_pcm_hw_params_set_buffer_size_near(handle, hw, &buffer), "buffer");
    require(snd_pcm_hw_params(handle, hw), pcm + ": parameters");
    if (direction == SND_PCM_STREAM_CAPTURE) {
        require(snd_pcm_start(handle), pcm + ": start");
    }
}

void TimedPcm::start() {
    thread = std::thread([this] { run(); });
}

void TimedPcm::stop() {
    stopping = true;
    if (thread.joinable()) {
        thread.join();
    }
    if (handle != nullptr) {
        snd_pcm_close(handle);
        handle = nullptr;
    }
}

void TimedPcm::run() {
    while (!stopping) {
        if (move() < 0) {
            snd_pcm_prepare(handle);
            if (snd_pcm_stream(handle) == SND_PCM_STREAM_CAPTURE) {
                snd_pcm_start(handle);
            }
        }
    }
}

TimedPlayer::TimedPlayer(const std::string& pcm, End end, size_t channels)
    : TimedPcm(pcm, SND_PCM_STREAM_PLAYBACK, end, channels), nextAt(board::now()) {
    start();
}

snd_pcm_sframes_t TimedPlayer::move() {
    const int64_t blockFrames = end == End::kHost ? kHostPeriodFrames : kAppBlockFrames;
    if (end == End::kApp) {
        board::sleepUntil(nextAt);
        nextAt += kAppBlock;
        if (snd_pcm_state(handle) == SND_PCM_STATE_PREPARED) {
            const board::Samples silence(kAppPeriodFrames);
            snd_pcm_writei(handle, silence.data(), silence.size());
        }
    } else if (snd_pcm_wait(handle, kWaitMs) == 0) {
        return 0;
    }
    board::Samples block;
    for (const int16_t sample : board::render(board::ramp, frame, blockFrames)) {
        block.insert(block.end(), channels, sample);
    }
    moved.push_back({board::now(), frame});
    const snd_pcm_sframes_t written =
        snd_pcm_writei(handle, block.data(), static_cast<snd_pcm_uframes_t>(blockFrames));
    frame += blockFrames;
    return written;
}

TimedRecorder::TimedRecorder(const std::string& pcm, End end, size_t channels)
    : TimedPcm(pcm, SND_PCM_STREAM_CAPTURE, end, channels) {
    start();
}

snd_pcm_sframes_t TimedRecorder::move() {
    if (snd_pcm_wait(handle, kWaitMs) == 0) {
        return 0;
    }
    const auto frames = static_cast<snd_pcm_uframes_t>(periodFramesOf(end));
    board::Samples block(frames * channels);
    const snd_pcm_sframes_t got = snd_pcm_readi(handle, block.data(), frames);
    moved.push_back({board::now(), static_cast<int64_t>(recorded.size())});
    for (snd_pcm_sframes_t i = 0; i < got; ++i) {
        recorded.push_back(block[static_cast<size_t>(i) * channels]);
    }
    return got;
}

namespace {

// The last block that was handed over by a moment, or that holds a frame.
const Block& lastBy(const std::vector<Block>& blocks, Ns at) {
    const auto next =
        std::upper_bound(blocks.begin(), blocks.end(), at,
                         [](Ns moment, const Block& block) { return moment < block.at; });
    return next == blocks.begin() ? *next : *(next - 1);
}
const Block& blockOf(const std::vector<Block>& blocks, int64_t frame) {
    const auto next = std::upper_bound(
        blocks.begin(), blocks.end(), frame,
        [](int64_t wanted, const Block& block) { return wanted < block.firstFrame; });
    return next == blocks.begin() ? *next : *(next - 1);
}

// Follows the ramp, a sample in 48.
class Follower {
  public:
    Follower(const std::vector<Block>& played, const HeardRamp& heard)
        : played(played), heard(heard) {}

    void look(size_t index, Ns at, Passage* passage) {
        const int16_t value = heard.samples[index];
        sinceKnown += kStep;
        if (value == 0 && index + 1 < heard.samples.size() && heard.samples[index + 1] == 0) {
            passage->breaks += isSounding ? 1 : 0;
            isSounding = false;
            return;
        }
        passage->soundingFrames += kStep;
        if (wrapsNear(value) || (isSounding && wrapsNear(known + sinceKnown))) {
            return;
        }
        const int64_t frame = frameNamed(value, lastBy(played, at).firstFrame);
        constexpr int64_t slack = 8;  // a resampler's
        if (isSounding && std::abs(frame - known - sinceKnown) > slack) {
            ++passage->breaks;
        }
        isSounding = true;
        known = frame;
        sinceKnown = 0;
        passage->latencies.push_back(at - blockOf(played, frame).at);
    }

    static constexpr int64_t kStep = 48;

  private:
    // Whether the ramp wraps from its highest to its lowest value here: a resampler then gives any.
    static bool wrapsNear(int64_t frame) {
        return std::abs(static_cast<int>(static_cast<int16_t>(frame))) > 32000;
    }
    // The newest frame of that name that can have been played; a resampler rounds.
    static int64_t frameNamed(int16_t value, int64_t newestBlock) {
        const int64_t newest = newestBlock + kAppBlockFrames + 16;
        const auto behind = static_cast<uint16_t>(newest - value);
        return newest - behind;
    }

    const std::vector<Block>& played;
    const HeardRamp& heard;
    bool isSounding = false;
    int64_t known = 0;
    int64_t sinceKnown = 0;
};

}  // namespace

Passage passageOf(const std::vector<Block>& played, const HeardRamp& heard, Ns from, Ns to) {
    Passage passage;
    Follower follower(played, heard);
    for (size_t i = 0; i < heard.blocks.size() && !played.empty(); ++i) {
        const Block& block = heard.blocks[i];
        const int64_t end = i + 1 < heard.blocks.size()
                                ? heard.blocks[i + 1].firstFrame
                                : static_cast<int64_t>(heard.samples.size());
        if (block.at < from || block.at >= to) {
            continue;
        }
        const int64_t step = Follower::kStep;
        for (int64_t at = (block.firstFrame + step - 1) / step * step; at < end; at += step) {
            follower.look(static_cast<size_t>(at), block.at, &passage);
        }
    }
    return passage;
}

}  // namespace bench
