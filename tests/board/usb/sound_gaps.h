// SPDX-License-Identifier: Apache-2.0
// Where a recording of a known voice misses frames.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "board/kit/sound.h"

struct Gap {
    int64_t at;       // the recording's frame before which frames are missing
    int64_t missing;  // how many; -1: what follows is not of the voice

    bool operator==(const Gap& other) const { return at == other.at && missing == other.missing; }
};

inline void PrintTo(const Gap& gap, std::ostream* out) {
    *out << gap.missing << " before frame " << gap.at;
}

// The recording is silence and then `voice`, in which every stretch occurs once, from its first
// frame on.
inline std::vector<Gap> findGaps(const board::Samples& recording, const board::Voice& voice) {
    constexpr int64_t kLongestGap = 4800;
    std::vector<Gap> gaps;
    int64_t frame = 0;  // of the voice
    for (size_t i = board::firstSound(recording); i < recording.size(); ++i, ++frame) {
        if (recording[i] == voice(frame)) {
            continue;
        }
        const int64_t missing = board::find(recording, i, board::render(voice, frame, kLongestGap));
        gaps.push_back({static_cast<int64_t>(i), missing});
        if (missing < 0) {
            break;
        }
        frame += missing;
    }
    return gaps;
}
