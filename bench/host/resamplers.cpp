// SPDX-License-Identifier: Apache-2.0
// Libraries that resample, in the frame buffer's job.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <samplerate.h>
#include <soxr.h>
#include <zita-resampler/vresampler.h>

#include "bench/host/contestants.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <speex/speex_resampler.h>
}

namespace bench {
namespace {

// How many samples one call of a resampler took and made.
struct Progress {
    int32_t taken;
    int32_t made;
};

// Engine(Correction) has process(in, n, out, room), which returns its Progress, and kStored: how
// many samples it stores at the start, so that it never runs short later; 0 if it takes only what
// it needs for its output.
// In front of it the waiting samples are in one piece, as the libraries need them.
template <class Engine>
class Resampling {
  public:
    explicit Resampling(Correction correction)
        : engine(correction), taken(takenBy(correction)), block(unknown(kBlock)) {
        constexpr int16_t silence[kFrame] = {};
        for (int32_t stored = 0; stored < Engine::kStored; stored += kFrame) {
            engine.process(silence, kFrame, nullptr, 0);
        }
    }

    int32_t held() const { return end - start; }

    void write(const int16_t* from) {
        memmove(storage, storage + start, static_cast<size_t>(held()) * sizeof(int16_t));
        end -= start;
        start = 0;
        memcpy(storage + end, from, static_cast<size_t>(block) * sizeof(int16_t));
        end += block;
    }

    void read(int16_t* frame) {
        int32_t left = Engine::kStored > 0 ? taken : kBlock;
        int32_t made = 0;
        while (made < kFrame) {
            const Progress p = engine.process(storage + start, std::min(held(), left), frame + made,
                                              kFrame - made);
            start += p.taken;
            left -= p.taken;
            made += p.made;
            if (p.taken == 0 && p.made == 0) {
                std::fill(frame + made, frame + kFrame, int16_t{0});
                return;
            }
        }
    }

  private:
    Engine engine;
    const int32_t taken;
    const int32_t block;
    int32_t start = 0;
    int32_t end = 0;
    alignas(64) int16_t storage[kStorage]{};
};

// ---- Samples of 16 bits ------------------------------------------------------------------------

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

// ---- Floating point, with conversions from and to 16 bits --------------------------------------

// The buffers before and after the library.
class FloatEngine {
  public:
    static constexpr int32_t kStored = 0;

  protected:
    float input[kBlock]{};
    float output[kFrame]{};
};

template <int converter>
class Samplerate : public FloatEngine {
  public:
    explicit Samplerate(Correction correction)
        : ratio(double{kFrame} / takenBy(correction)), state(src_new(converter, 1, nullptr)) {}
    Samplerate(const Samplerate&) = delete;
    Samplerate& operator=(const Samplerate&) = delete;
    ~Samplerate() { src_delete(state); }

    Progress process(const int16_t* in, int32_t n, int16_t* out, int32_t room) {
        const int32_t offered = std::min(n, room + 4);
        src_short_to_float_array(in, input, offered);
        SRC_DATA data{};
        data.data_in = input;
        data.data_out = output;
        data.input_frames = offered;
        data.output_frames = room;
        data.src_ratio = ratio;
        src_process(state, &data);
        src_float_to_short_array(output, out, static_cast<int>(data.output_frames_gen));
        return {static_cast<int32_t>(data.input_frames_used),
                static_cast<int32_t>(data.output_frames_gen)};
    }

  private:
    const double ratio;
    SRC_STATE* const state;
};

template <int halfLength>
class Zita : public FloatEngine {
  public:
    explicit Zita(Correction correction) {
        resampler.setup(1, 1, halfLength);
        resampler.set_rratio(double{kFrame} / takenBy(correction));
    }

    Progress process(const int16_t* in, int32_t n, int16_t* out, int32_t room) {
        const int32_t offered = std::min(n, room + 4);
        src_short_to_float_array(in, input, offered);
        resampler.inp_data = input;
        resampler.inp_count = static_cast<unsigned>(offered);
        resampler.out_data = output;
        resampler.out_count = static_cast<unsigned>(room);
        resampler.process();
        const int32_t made = room - static_cast<int32_t>(resampler.out_count);
        src_float_to_short_array(output, out, made);
        return {offered - static_cast<int32_t>(resampler.inp_count), made};
    }

  private:
    VResampler resampler;
};

template <class Library>
FrameContestant resampler(std::string name) {
    return frameContestant<Resampling<Library>>(std::move(name));
}

}  // namespace

std::vector<FrameContestant> frameContestants() {
    std::vector<FrameContestant> all = ownFrameBuffers();
    all.insert(
        all.end(),
        {resampler<Swresample<16>>("libswresample, 16 taps"),
         resampler<Swresample<32>>("libswresample, 32 taps"),
         resampler<Speex<0>>("speexdsp, quality 0"), resampler<Speex<3>>("speexdsp, quality 3"),
         resampler<SoxrQuick>("libsoxr, quick"), resampler<SoxrVariable>("libsoxr, variable rate"),
         resampler<Samplerate<SRC_LINEAR>>("libsamplerate, linear"),
         resampler<Samplerate<SRC_SINC_FASTEST>>("libsamplerate, sinc fastest"),
         resampler<Zita<16>>("zita-resampler, 16 taps a side")});
    return all;
}

}  // namespace bench
