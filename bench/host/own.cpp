// SPDX-License-Identifier: Apache-2.0
#include "bench/host/own.h"

#include "bench/host/contestants.h"

namespace bench {

const char* const kOurs = "uafd";
const char* const kBareCopies = "bare copies";
const char* const kSimd = "hand-written SIMD";
const char* const kJack = "JACK ring buffer";

std::vector<FrameContestant> ownFrameBuffers() {
    return {frameContestant<OwnFrameBuffer>(kOurs), frameContestant<BareCopies>(kBareCopies),
            frameContestant<HandWrittenSimd>(kSimd)};
}

std::vector<QueueContestant> ownQueues() {
    return {queueContestant<OwnQueue>(kOurs), queueContestant<SampleRing>(kBareCopies)};
}

}  // namespace bench
