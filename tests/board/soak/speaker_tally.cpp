// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/speaker_tally.h"

#include <algorithm>

namespace board {

void SpeakerTally::add(const Heard& heard, const StreamClock& clock) {
    const auto size = static_cast<int64_t>(heard.left.size());
    counts().clicks += clicks.add(heard.left.data(), size);
    counts().unexplained += heard.unequalFrames;
    for (size_t i = 0; i < heard.blocks.size(); ++i) {
        const HeardBlock& block = heard.blocks[i];
        const int64_t begin = block.firstFrame - heard.blocks.front().firstFrame;
        const int64_t end = i + 1 < heard.blocks.size()
                                ? heard.blocks[i + 1].firstFrame - heard.blocks.front().firstFrame
                                : size;
        const int64_t first = next;
        if (follow(heard.left.data() + begin, end - begin)) {
            note(block.at, block.at - clock.timeOf(queueBegin + first));
        } else {
            noteWrong(block.at);
        }
    }
}

bool SpeakerTally::follow(const int16_t* samples, int64_t count) {
    bool inPlace = true;
    for (int64_t i = 0; i < count;) {
        const int16_t* wanted = tone().from(next);
        const int64_t length = std::min(count - i, Tone::kStretch);
        const int64_t same = std::mismatch(wanted, wanted + length, samples + i).first - wanted;
        counts().frames += same;
        next += same;
        i += same;
        if (same < length) {
            inPlace = false;
            i += findAgain(samples + i, count - i);
        }
    }
    return inPlace;
}

int64_t SpeakerTally::findAgain(const int16_t* samples, int64_t count) {
    // The tone never has two zeros in a row.
    const int64_t zeros =
        std::find_if(samples, samples + count, [](int16_t s) { return s != 0; }) - samples;
    if (zeros > 1 || zeros == count) {
        counts().silent += zeros;
        return zeros;
    }
    int64_t frames = 0;
    if (!tone().displacement(next, samples, count, &frames)) {
        ++counts().unexplained;
        return 1;
    }
    counts().lost += std::max<int64_t>(frames, 0);
    counts().repeated += std::max<int64_t>(-frames, 0);
    next += frames;
    return 0;
}

}  // namespace board
