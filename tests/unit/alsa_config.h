// SPDX-License-Identifier: Apache-2.0
// The shipped ALSA configuration of the device uafd, with the plugins of this build, for tests that
// use the real alsa-lib. What ALSA writes about errors is kept. One thread.
#pragma once

#include <string>

#include <alsa/asoundlib.h>

namespace uafd {

class AlsaConfig {
  public:
    // `more` is added to the configuration.
    explicit AlsaConfig(const std::string& more = "");
    ~AlsaConfig();
    AlsaConfig(const AlsaConfig&) = delete;
    AlsaConfig& operator=(const AlsaConfig&) = delete;

    snd_config_t* get() const { return top; }
    // ALSA's messages since the newest configuration was made.
    static const std::string& said();

  private:
    snd_config_t* top = nullptr;
};

}  // namespace uafd
