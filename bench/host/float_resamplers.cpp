// SPDX-License-Identifier: Apache-2.0
// Resamplers for floating-point samples, with conversions from and to 16-bit samples.
#include <algorithm>
#include <cmath>
#include <samplerate.h>
#include <zita-resampler/vresampler.h>

#include "bench/host/contestants.h"
#include "bench/host/resampling.h"

namespace bench {
namespace {

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

}  // namespace

std::vector<FrameContestant> floatResamplers() {
    return {
        frameContestant<Resampling<Samplerate<SRC_LINEAR>>>("libsamplerate, linear"),
        frameContestant<Resampling<Samplerate<SRC_SINC_FASTEST>>>("libsamplerate, sinc fastest"),
        frameContestant<Resampling<Zita<16>>>("zita-resampler, 16 taps a side")};
}

}  // namespace bench
