// SPDX-License-Identifier: Apache-2.0
// The device uafd for the programs on this board: links its configuration into /etc, as the package
// does. Only where it is needed, as reading it changes the costs that other tests measure.
#pragma once

#include <filesystem>

namespace board {

inline void installAlsaDevice() {
    std::filesystem::create_directories("/etc/alsa/conf.d");
    std::filesystem::create_symlink("/usr/share/alsa/alsa.conf.d/60-uafd.conf",
                                    "/etc/alsa/conf.d/60-uafd.conf");
}

}  // namespace board
