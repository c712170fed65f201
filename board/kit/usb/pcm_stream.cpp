// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/pcm_stream.h"

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace board {
namespace {

constexpr snd_pcm_uframes_t kPeriodFrames = 480;
constexpr snd_pcm_uframes_t kBufferFrames = 4800;
constexpr int kLookMs = 20;  // how long a stream that stalls takes to see that it is to stop

void require(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + snd_strerror(result));
    }
}

}  // namespace

PcmStream::PcmStream(const std::string& pcm, snd_pcm_stream_t direction) {
    require(snd_pcm_open(&handle, pcm.c_str(), direction, SND_PCM_NONBLOCK), pcm.c_str());
    setUp(direction);
}

PcmStream::~PcmStream() {
    stop();
}

void PcmStream::setUp(snd_pcm_stream_t direction) {
    snd_pcm_hw_params_t* hw;
    snd_pcm_hw_params_alloca(&hw);
    snd_pcm_uframes_t period = kPeriodFrames;
    snd_pcm_uframes_t buffer = kBufferFrames;
    require(snd_pcm_hw_params_any(handle, hw), "any");
    require(snd_pcm_hw_params_set_access(handle, hw, SND_PCM_ACCESS_RW_INTERLEAVED), "access");
    require(snd_pcm_hw_params_set_format(handle, hw, SND_PCM_FORMAT_S16_LE), "format");
    require(snd_pcm_hw_params_set_channels(handle, hw, 1), "channels");
    require(snd_pcm_hw_params_set_rate(handle, hw, kRate, 0), "rate");
    require(snd_pcm_hw_params_set_period_size_near(handle, hw, &period, nullptr), "period");
    require(snd_pcm_hw_params_set_buffer_size_near(handle, hw, &buffer), "buffer");
    require(snd_pcm_hw_params(handle, hw), "parameters");
    if (direction == SND_PCM_STREAM_CAPTURE) {
        require(snd_pcm_start(handle), "start");
    }
}

void PcmStream::start() {
    thread = std::thread([this] { run(); });
}

void PcmStream::stop() {
    stopping = true;
    if (thread.joinable()) {
        thread.join();
    }
    if (handle != nullptr) {
        snd_pcm_close(handle);
        handle = nullptr;
    }
}

void PcmStream::run() {
    while (!stopping) {
        const snd_pcm_sframes_t result = move(handle);
        if (result >= 0) {
            moved += result;
        } else if (result == -EAGAIN) {
            snd_pcm_wait(handle, kLookMs);
        } else {
            endedBy = static_cast<int>(result);
            return;
        }
    }
}

PcmPlayer::PcmPlayer(const std::string& pcm, Voice voice)
    : PcmStream(pcm, SND_PCM_STREAM_PLAYBACK), source(std::move(voice)) {
    start();
}

snd_pcm_sframes_t PcmPlayer::move(snd_pcm_t* pcm) {
    if (next.empty()) {
        next = render(source, rendered, kPeriodFrames);
        rendered += kPeriodFrames;
    }
    const snd_pcm_sframes_t written = snd_pcm_writei(pcm, next.data(), next.size());
    if (written > 0) {
        next.erase(next.begin(), next.begin() + written);
    }
    return written;
}

PcmRecorder::PcmRecorder(const std::string& pcm) : PcmStream(pcm, SND_PCM_STREAM_CAPTURE) {
    start();
}

snd_pcm_sframes_t PcmRecorder::move(snd_pcm_t* pcm) {
    Samples block(kPeriodFrames);
    const snd_pcm_sframes_t got = snd_pcm_readi(pcm, block.data(), block.size());
    if (got > 0) {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.insert(recorded.end(), block.begin(), block.begin() + got);
    }
    return got;
}

Samples PcmRecorder::recording() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

Samples PcmRecorder::take() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(recorded, {});
}

}  // namespace board
