// SPDX-License-Identifier: Apache-2.0
// One channel from one rate to another, with a ratio that may change a little with every call and
// does so without a step. One thread.
#pragma once

#include <cstddef>
#include <memory>
#include <samplerate.h>
#include <vector>

namespace uafd {

class Resampler {
  public:
    // `ratio`: frames out for each frame in, at the rates' nominal values. False when there is no
    // memory.
    bool open(double ratio);
    // Forgets what came before.
    void restart();
    // Appends the result to `made`. `correction`: the part of the frames to leave out.
    void process(const float* samples, size_t count, double correction, std::vector<float>* made);

  private:
    struct Closer {
        void operator()(SRC_STATE* opened) const { src_delete(opened); }
    };
    std::unique_ptr<SRC_STATE, Closer> state;
    double nominal = 1;
};

}  // namespace uafd
