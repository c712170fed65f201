// SPDX-License-Identifier: Apache-2.0
// One channel from one rate to another, with a ratio that may change a little with every call and
// does so without a step. One thread.
#pragma once

#include <cmath>
#include <cstddef>
#include <memory>
#include <samplerate.h>
#include <vector>

namespace uafd {

class Resampler {
  public:
    // `ratio`: frames out for each frame in, at the rates' nominal values. False when there is no
    // memory.
    bool open(double ratio) {
        int error = 0;
        nominal = ratio;
        // Of the library's filters the one that costs least and still leaves less noise than 16
        // bits do.
        state.reset(src_new(SRC_SINC_FASTEST, 1, &error));
        return state != nullptr;
    }
    // Forgets what came before.
    void restart() { src_reset(state.get()); }
    // Appends the result to `made`. `correction`: the part of the frames to leave out.
    void process(const float* samples, size_t count, double correction, std::vector<float>* made) {
        const size_t before = made->size();
        SRC_DATA data{};
        data.src_ratio = nominal * (1 - correction);
        made->resize(before + kSpareFrames +
                     static_cast<size_t>(std::ceil(static_cast<double>(count) * nominal * 1.01)));
        data.data_in = samples;
        data.input_frames = static_cast<long>(count);
        data.data_out = made->data() + before;
        data.output_frames = static_cast<long>(made->size() - before);
        // It fails only for arguments that cannot occur here.
        src_process(state.get(), &data);
        made->resize(before + static_cast<size_t>(data.output_frames_gen));
    }

  private:
    static constexpr size_t kSpareFrames = 32;

    struct Closer {
        void operator()(SRC_STATE* opened) const { src_delete(opened); }
    };
    std::unique_ptr<SRC_STATE, Closer> state;
    double nominal = 1;
};

}  // namespace uafd
