// SPDX-License-Identifier: Apache-2.0
#include "board/kit/audio_host.h"

namespace board {
namespace {

constexpr int64_t kUsbFrameFrames = 48;

}  // namespace

Ns StreamPosition::timeOf(int64_t frame) const {
    const int64_t usbFrames = (frames - 1) / kUsbFrameFrames - frame / kUsbFrameFrames;
    return at - static_cast<Ns>(static_cast<double>(usbFrames * kUsbFrameFrames) * nsPerFrame);
}

}  // namespace board
