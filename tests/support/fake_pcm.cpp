// SPDX-License-Identifier: Apache-2.0
// The PCMs of the fake alsa-lib: devices whose fill level follows from their clocks and rates.
#include "tests/support/fake_pcm.h"

#include <memory>

namespace {

using fake_alsa::answer;
using fake_alsa::answerPcm;
using fake_alsa::answerUnlocked;
using fake_alsa::arguments;
using fake_alsa::Guard;
using fake_alsa::hooks;
using fake_alsa::lock;
__extension__ using Wide = __int128;

constexpr Wide kFemto = 1000000000000000;  // ns in a second times microhertz in a hertz
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kForeverNs = 10000000000;  // without progress; then a blocking transfer fails

std::vector<std::unique_ptr<snd_pcm_t>>& pcms() {
    static auto* const all = new std::vector<std::unique_ptr<snd_pcm_t>>;
    return *all;
}

Wide microHertz(const snd_pcm_t& pcm) {
    return static_cast<Wide>(pcm.hw.rate) * (1000000 + pcm.device.clockPpm);
}

int openPcm(snd_pcm_t** handle, snd_pcm_stream_t stream) {
    const Guard guard(lock());
    auto opened = std::make_unique<snd_pcm_t>();
    opened->index = static_cast<int>(pcms().size());
    opened->stream = stream;
    opened->device = fake_alsa::nextDevice();
    *handle = opened.get();
    pcms().push_back(std::move(opened));
    return 0;
}

bool isOpen(const snd_pcm_t* pcm) {
    const Guard guard(lock());
    return pcm != nullptr && pcm->open;
}

}  // namespace

// ---- The device --------------------------------------------------------------------------------

uint64_t snd_pcm_t::deviceFrames() const {
    return static_cast<uint64_t>(runNs * microHertz(*this) / kFemto);
}

int64_t snd_pcm_t::nsUntil(uint64_t frames) const {
    const Wide hz = microHertz(*this);
    return static_cast<int64_t>((frames * kFemto + hz - 1) / hz) - runNs;
}

snd_pcm_sframes_t snd_pcm_t::avail() const {
    const auto moved = static_cast<snd_pcm_sframes_t>(deviceFrames());
    const auto transferred = static_cast<snd_pcm_sframes_t>(appFrames);
    return stream == SND_PCM_STREAM_CAPTURE
               ? moved - transferred
               : static_cast<snd_pcm_sframes_t>(hw.buffer) + moved - transferred;
}

void snd_pcm_t::pass(int64_t ns) {
    elapsedNs += ns;
    if (state != SND_PCM_STATE_RUNNING || stalled) {
        return;
    }
    runNs += ns;
    if (avail() >= static_cast<snd_pcm_sframes_t>(sw.stopThreshold)) {
        state = SND_PCM_STATE_XRUN;
    }
}

int snd_pcm_t::stateError() const {
    switch (state) {
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_RUNNING:
            return 0;
        case SND_PCM_STATE_XRUN:
            return -EPIPE;
        case SND_PCM_STATE_SUSPENDED:
            return -ESTRPIPE;
        case SND_PCM_STATE_DISCONNECTED:
            return -ENODEV;
        default:
            return -EBADFD;
    }
}

int snd_pcm_t::waitForAvail(snd_pcm_uframes_t wanted, int64_t limitNs) {
    const int error = stateError();
    if (error < 0) {
        return error;
    }
    const snd_pcm_sframes_t missing = static_cast<snd_pcm_sframes_t>(wanted) - avail();
    if (missing <= 0) {
        return 1;
    }
    const bool moving = state == SND_PCM_STATE_RUNNING && !stalled;
    const int64_t ns = moving ? nsUntil(deviceFrames() + static_cast<uint64_t>(missing)) : limitNs;
    pass(std::min(ns, limitNs));
    return moving && ns <= limitNs ? 1 : 0;
}

void snd_pcm_t::prepare() {
    earlierFrames += deviceFrames();
    runNs = 0;
    appFrames = 0;
    state = SND_PCM_STATE_PREPARED;
}

namespace fake_alsa {

bool isUsable(snd_pcm_t* pcm) {
    const bool usable = isOpen(pcm);
    if (usable) {
        ++pcm->uses;
    } else {
        ADD_FAILURE() << "an alsa-lib call was made with " << nameOf(pcm) << ", which is not open";
    }
    return usable;
}

Device& nextDevice() {
    static auto* const device = new Device;
    return *device;
}

snd_pcm_t* pcm(int index) {
    const Guard guard(lock());
    const auto number = static_cast<size_t>(index);
    return number < pcms().size() ? pcms()[number].get() : nullptr;
}

int pcmsOpened() {
    const Guard guard(lock());
    return static_cast<int>(pcms().size());
}

int pcmsOpen() {
    const Guard guard(lock());
    return static_cast<int>(
        std::count_if(pcms().begin(), pcms().end(), [](const auto& each) { return each->open; }));
}

void advance(snd_pcm_t* pcm, int64_t ns) {
    const Guard guard(lock());
    pcm->pass(ns);
}

int64_t elapsedNs(snd_pcm_t* pcm) {
    const Guard guard(lock());
    return pcm->elapsedNs;
}

void stall(snd_pcm_t* pcm, bool stalled) {
    const Guard guard(lock());
    pcm->stalled = stalled;
}

void setState(snd_pcm_t* pcm, snd_pcm_state_t state) {
    const Guard guard(lock());
    pcm->state = state;
}

int16_t capturedSample(uint64_t frame) {
    constexpr uint64_t values = 32749;  // a prime, so that no period of the stream repeats soon
    return static_cast<int16_t>(frame % values + 1);
}

std::vector<int16_t> written(snd_pcm_t* pcm) {
    const Guard guard(lock());
    return pcm->written;
}

void resetPcms() {
    const Guard guard(lock());
    pcms().clear();
    nextDevice() = Device{};
}

namespace device {

int wait(snd_pcm_t* pcm, int timeoutMs) {
    const Guard guard(lock());
    return pcm->waitForAvail(pcm->sw.availMin, timeoutMs < 0 ? kForeverNs : timeoutMs * kNsPerMs);
}

snd_pcm_state_t state(snd_pcm_t* pcm) {
    const Guard guard(lock());
    return pcm->state;
}

snd_pcm_sframes_t availUpdate(snd_pcm_t* pcm) {
    const Guard guard(lock());
    const int error = pcm->stateError();
    return error < 0 ? error : pcm->avail();
}

snd_pcm_sframes_t readi(snd_pcm_t* pcm, int16_t* samples, snd_pcm_uframes_t frames) {
    const Guard guard(lock());
    if (pcm->state == SND_PCM_STATE_PREPARED && frames >= pcm->sw.startThreshold) {
        pcm->state = SND_PCM_STATE_RUNNING;
    }
    const int ready = pcm->waitForAvail(frames, kForeverNs);
    if (ready != 1) {
        return ready < 0 ? ready : -EIO;
    }
    for (snd_pcm_uframes_t i = 0; i < frames; ++i) {
        const int16_t sample = capturedSample(pcm->earlierFrames + pcm->appFrames + i);
        std::fill_n(samples + i * pcm->hw.channels, pcm->hw.channels, sample);
    }
    pcm->appFrames += frames;
    return static_cast<snd_pcm_sframes_t>(frames);
}

snd_pcm_sframes_t writei(snd_pcm_t* pcm, const int16_t*, snd_pcm_uframes_t frames) {
    const Guard guard(lock());
    const int ready = pcm->waitForAvail(frames, kForeverNs);
    if (ready != 1) {
        return ready < 0 ? ready : -EIO;
    }
    pcm->appFrames += frames;
    if (pcm->state == SND_PCM_STATE_PREPARED && pcm->appFrames >= pcm->sw.startThreshold) {
        pcm->state = SND_PCM_STATE_RUNNING;
    }
    return static_cast<snd_pcm_sframes_t>(frames);
}

}  // namespace device
}  // namespace fake_alsa

// ---- The library's calls -----------------------------------------------------------------------

extern "C" {

int snd_pcm_open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode) {
    const std::string direction = stream == SND_PCM_STREAM_CAPTURE ? "CAPTURE" : "PLAYBACK";
    return answer("snd_pcm_open", name + (", " + direction + ", " + std::to_string(mode)),
                  [&] { return openPcm(pcm, stream); });
}

int snd_pcm_close(snd_pcm_t* pcm) {
    return answerPcm("snd_pcm_close", pcm, [pcm] {
        pcm->open = false;
        return 0;
    });
}

snd_pcm_stream_t snd_pcm_stream(snd_pcm_t* pcm) {
    return static_cast<snd_pcm_stream_t>(
        answerPcm("snd_pcm_stream", pcm, [pcm] { return static_cast<int>(pcm->stream); }));
}

int snd_pcm_start(snd_pcm_t* pcm) {
    return answerPcm("snd_pcm_start", pcm, [pcm] {
        if (pcm->state != SND_PCM_STATE_PREPARED) {
            return -EBADFD;
        }
        pcm->state = SND_PCM_STATE_RUNNING;
        return 0;
    });
}

int snd_pcm_prepare(snd_pcm_t* pcm) {
    return answerPcm("snd_pcm_prepare", pcm, [pcm] {
        pcm->prepare();
        return 0;
    });
}

int snd_pcm_resume(snd_pcm_t* pcm) {
    return answerPcm("snd_pcm_resume", pcm, [pcm] {
        if (pcm->state != SND_PCM_STATE_SUSPENDED) {
            return -EBADFD;
        }
        pcm->state = SND_PCM_STATE_RUNNING;
        return 0;
    });
}

int snd_pcm_drop(snd_pcm_t* pcm) {
    return answerPcm("snd_pcm_drop", pcm, [pcm] {
        pcm->state = SND_PCM_STATE_SETUP;
        return 0;
    });
}

int snd_pcm_wait(snd_pcm_t* pcm, int timeoutMs) {
    return answerUnlocked("snd_pcm_wait", pcm, arguments(pcm, timeoutMs),
                          [&] { return hooks().wait(pcm, timeoutMs); });
}

snd_pcm_state_t snd_pcm_state(snd_pcm_t* pcm) {
    const int state =
        answerUnlocked("snd_pcm_state", pcm, arguments(pcm), [&] { return hooks().state(pcm); });
    return state == -EBADFD ? SND_PCM_STATE_DISCONNECTED : static_cast<snd_pcm_state_t>(state);
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t* pcm) {
    return answerUnlocked("snd_pcm_avail_update", pcm, arguments(pcm),
                          [&] { return hooks().availUpdate(pcm); });
}

snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t frames) {
    return answerUnlocked("snd_pcm_readi", pcm, arguments(pcm, frames), [&] {
        return hooks().readi(pcm, static_cast<int16_t*>(buffer), frames);
    });
}

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
    const auto* const samples = static_cast<const int16_t*>(buffer);
    const int taken = answerUnlocked("snd_pcm_writei", pcm, arguments(pcm, frames),
                                     [&] { return hooks().writei(pcm, samples, frames); });
    if (taken > 0 && isOpen(pcm) && fake_alsa::isRecording()) {
        const Guard guard(lock());
        // A scripted answer may claim more frames than there were.
        const auto kept = std::min(static_cast<snd_pcm_uframes_t>(taken), frames);
        pcm->written.insert(pcm->written.end(), samples, samples + kept * pcm->hw.channels);
    }
    return taken;
}

}  // extern "C"
