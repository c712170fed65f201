// SPDX-License-Identifier: Apache-2.0
// The inside of the fake alsa-lib: the PCM behind a handle, which is used under fake_alsa::lock(),
// and how a call is recorded and answered.
#pragma once

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/fake_alsa.h"

struct _snd_pcm_hw_params {
    snd_pcm_access_t access;
    snd_pcm_format_t format;
    unsigned channels;
    unsigned rate;
    snd_pcm_uframes_t buffer;
    snd_pcm_uframes_t period;
};

struct _snd_pcm_sw_params {
    snd_pcm_uframes_t startThreshold;
    snd_pcm_uframes_t stopThreshold;
    snd_pcm_uframes_t availMin;
};

struct _snd_pcm {
    int index;
    snd_pcm_stream_t stream;
    fake_alsa::Device device;
    bool open = true;
    bool stalled = false;
    snd_pcm_state_t state = SND_PCM_STATE_OPEN;
    snd_pcm_hw_params_t hw{};
    snd_pcm_sw_params_t sw{};
    int64_t elapsedNs = 0;       // since the opening
    int64_t runNs = 0;           // how long the stream has moved since the last prepare
    uint64_t appFrames = 0;      // transferred since the last prepare
    uint64_t earlierFrames = 0;  // frames that the device moved before the last prepare
    std::vector<int16_t> written;
    // Counts calls with this handle, deliberately without a lock: only one thread at a time may use
    // a PCM, and ThreadSanitizer reports here if two do.
    unsigned uses = 0;

    // Frames that the device moved since the last prepare.
    uint64_t deviceFrames() const;
    // How long it takes until the device has moved `frames` in total.
    int64_t nsUntil(uint64_t frames) const;
    snd_pcm_sframes_t avail() const;
    // Lets time pass.
    void pass(int64_t ns);
    // Returns 1 when `wanted` frames are there, 0 when the limit passed first, or the state's
    // error.
    int waitForAvail(snd_pcm_uframes_t wanted, int64_t limitNs);
    int stateError() const;
    void prepare();
};

namespace fake_alsa {

// ---- What all parts of the fake alsa-lib share -----------------------------------------------

// Guards record, scripts, PCMs and cards; never held while a hook runs.
fake_sys::Mutex& lock();
using Guard = std::lock_guard<fake_sys::Mutex>;

bool isRecording();

// Records the call "function(arguments)" and returns its scripted answer, if it has one.
std::optional<long> record(const std::string& function, const std::string& arguments);

// The recorded call's answer: the script's, or else what `effect` returns.
template <typename Effect>
int answer(const std::string& function, const std::string& arguments, Effect effect) {
    const std::optional<long> scripted = record(function, arguments);
    return scripted ? static_cast<int>(*scripted) : effect();
}

// Shows in the record whether the caller filled a container with zeros.
template <typename Container>
const char* fillOf(const Container* container) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(container);
    const bool zeroed =
        std::all_of(bytes, bytes + sizeof *container, [](unsigned char byte) { return byte == 0; });
    return zeroed ? ", zeroed" : ", dirty";
}

void resetPcms();

// ---- Calls with a PCM --------------------------------------------------------------------------

inline std::string nameOf(const snd_pcm_t* pcm) {
    return pcm != nullptr ? "pcm" + std::to_string(pcm->index) : "null";
}

// A value in the record's words.
template <typename Value>
std::string textOf(Value value) {
    return std::to_string(value);
}
inline std::string textOf(snd_pcm_access_t access) {
    return access == SND_PCM_ACCESS_RW_INTERLEAVED ? "RW_INTERLEAVED" : "other";
}
inline std::string textOf(snd_pcm_format_t format) {
    return format == SND_PCM_FORMAT_S16_LE ? "S16_LE" : "other";
}

template <typename... Values>
std::string arguments(const snd_pcm_t* pcm, Values... values) {
    std::string text = nameOf(pcm);
    ((text += ", " + textOf(values)), ...);
    return text;
}

// A call with a handle that is not open is always an error of the daemon's, so it fails the test.
bool isUsable(snd_pcm_t* pcm);

// Records a call with a PCM; `effect` runs without the lock, as a hook needs it.
template <typename Effect>
int answerUnlocked(const char* function, snd_pcm_t* pcm, const std::string& text, Effect effect) {
    const bool usable = isUsable(pcm);
    return answer(function, text, [&] { return usable ? static_cast<int>(effect()) : -EBADFD; });
}

// Records a call with a PCM; `effect` runs under the lock.
template <typename Effect>
int answerPcm(const char* function, snd_pcm_t* pcm, const std::string& text, Effect effect) {
    return answerUnlocked(function, pcm, text, [&] {
        const Guard guard(lock());
        return effect();
    });
}

template <typename Effect>
int answerPcm(const char* function, snd_pcm_t* pcm, Effect effect) {
    return answerPcm(function, pcm, nameOf(pcm), effect);
}

}  // namespace fake_alsa
