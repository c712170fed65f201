// SPDX-License-Identifier: Apache-2.0
// The simulated app: when it writes which frames. Pure; one thread.
#pragma once

#include <cstdint>
#include <random>

#include "tools/drift/scenario.h"

namespace drift {

// When the app's clock reaches this frame.
Ns dueOf(const Scenario& scenario, int64_t frame);

struct AppWrite {
    Ns at;
    int64_t firstFrame;
};

class AppWrites {
  public:
    explicit AppWrites(const Scenario& scenario);

    // The next write, of the scenario's blockFrames; never before the previous one.
    AppWrite next();

  private:
    bool isDropped(Ns at) const;
    Ns delayed(Ns at) const;

    const Scenario scenario;
    std::mt19937_64 engine;
    int64_t block = 0;
    Ns lastAt = 0;
};

}  // namespace drift
