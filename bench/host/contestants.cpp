// SPDX-License-Identifier: Apache-2.0
#include "bench/host/contestants.h"

namespace bench {
namespace {

template <class T>
void append(std::vector<T>& all, std::vector<T> more) {
    all.insert(all.end(), more.begin(), more.end());
}

}  // namespace

std::vector<FrameContestant> frameContestants() {
    std::vector<FrameContestant> all = ownFrameBuffers();
    append(all, integerResamplers());
    append(all, floatResamplers());
    return all;
}

std::vector<QueueContestant> queueContestants() {
    std::vector<QueueContestant> all = ownQueues();
    append(all, libraryQueues());
    return all;
}

}  // namespace bench
