// SPDX-License-Identifier: Apache-2.0
// Resamplers for 16-bit samples.
#include "bench/host/contestants.h"
#include "bench/host/resampling.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <speex/speex_resampler.h>
}
#include <soxr.h>

namespace bench {
namespace {

template <int quality>
class Speex {
  public:
    static constexpr int32_t kStored = 0;

    explicit Speex(Correction correction)
        : state(speex_resampler_init_frac(1, static_cast<spx_uint32_t>(takenBy(correction)), kFrame,
                                          static_cast<spx_uint32_t>(takenBy(correction)) * 200,
                                          kRate, quality, nullptr)) {}
    Speex(const Speex&) = delete;
    Speex& operator=(const Speex&) = delete;
    ~Speex() { speex_resampler_destroy(state); }

    Progress process(const int16_t* in, int32_t n, int16_t* out, int32_t room) {
        auto taken = static_cast<spx_uint32_t>(n);
        auto made = static_cast<spx_uint32_t>(room);
        speex_resampler_process_int(state, 0, in, &taken, out, &made);
        return {static_cast<int32_t>(taken), static_cast<int32_t>(made)};
    }

  private:
    SpeexResamplerState* const state;
};

// Compensation adds or removes one sample in a frame and is requested again for each frame. Without
// compensation the library resamples as well, so that compensation can begin without a click.
template <int taps>
class Swresample {
  public:
    static constexpr int32_t kStored = kFrame;

    explicit Swresample(Correction correction) : delta(kFrame - takenBy(correction)) {
        AVChannelLayout mono{};
        av_channel_layout_default(&mono, 1);
        swr_alloc_set_opts2(&context, &mono, AV_SAMPLE_FMT_S16, kRate, &mono, AV_SAMPLE_FMT_S16,
                            kRate, 0, nullptr);
        av_opt_set_int(context, "flags", SWR_FLAG_RESAMPLE, 0);
        av_opt_set_int(context, "filter_size", taps, 0);
        swr_init(context);
    }
    Swresample(const Swresample&) = delete;
    Swresample& operator=(const Swresample&) = delete;
    ~Swresample() { swr_free(&context); }

    Progress process(const int16_t* in, int32_t n, int16_t* out, int32_t room) {
        swr_set_compensation(context, delta, kFrame);
        const auto* from = reinterpret_cast<const uint8_t*>(in);
        auto* to = reinterpret_cast<uint8_t*>(out);
        const int made = swr_convert(context, room > 0 ? &to : nullptr, room, &from, n);
        return {n, made};
    }

  private:
    SwrContext* context = nullptr;
    const int delta;
};

class Soxr {
  public:
    static constexpr int32_t kStored = 0;

    Soxr(double inRate, double outRate, unsigned long recipe, unsigned long flags) {
        const soxr_io_spec_t io = {SOXR_INT16_I, SOXR_INT16_I, 1, nullptr, SOXR_NO_DITHER};
        const soxr_quality_spec_t quality = soxr_quality_spec(recipe, flags);
        state = soxr_create(inRate, outRate, 1, nullptr, &io, &quality, nullptr);
    }
    Soxr(const Soxr&) = delete;
    Soxr& operator=(const Soxr&) = delete;
    ~Soxr() { soxr_delete(state); }

    Progress process(const int16_t* in, int32_t n, int16_t* out, int32_t room) {
        size_t taken = 0;
        size_t made = 0;
        soxr_process(state, in, static_cast<size_t>(n), &taken, out, static_cast<size_t>(room),
                     &made);
        return {static_cast<int32_t>(taken), static_cast<int32_t>(made)};
    }

  protected:
    soxr_t state;
};

// Has a fixed ratio.
class SoxrQuick : public Soxr {
  public:
    explicit SoxrQuick(Correction correction)
        : Soxr(static_cast<double>(takenBy(correction)), kFrame, SOXR_QQ, 0) {}
};

// Has a ratio that may change at any time.
class SoxrVariable : public Soxr {
  public:
    explicit SoxrVariable(Correction correction) : Soxr(2, 1, SOXR_HQ, SOXR_VR) {
        soxr_set_io_ratio(state, static_cast<double>(takenBy(correction)) / kFrame, 0);
    }
};

}  // namespace

std::vector<FrameContestant> integerResamplers() {
    return {frameContestant<Resampling<Swresample<16>>>("libswresample, 16 taps"),
            frameContestant<Resampling<Swresample<32>>>("libswresample, 32 taps"),
            frameContestant<Resampling<Speex<0>>>("speexdsp, quality 0"),
            frameContestant<Resampling<Speex<3>>>("speexdsp, quality 3"),
            frameContestant<Resampling<SoxrQuick>>("libsoxr, quick"),
            frameContestant<Resampling<SoxrVariable>>("libsoxr, variable rate")};
}

}  // namespace bench
