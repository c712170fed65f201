// SPDX-License-Identifier: Apache-2.0
// How the source channel buffers what the companion app says: the blocks in which it reads the
// FIFO, what its frame buffer holds, when that is enlarged, and the gadget card's ring behind it.
#pragma once

#include <cstdint>

constexpr int FIFO_BLOCK_FRAMES = 480;  // the FIFO is read 10 ms at a time
constexpr int SRC_RING_FRAMES = 720;    // of the gadget card's playback stream, 15 ms

// What the frame buffer holds, samples: its storage and the depth range that it keeps. An app that
// starves it again and again gets the large one for the rest of the run.
struct FrameBufferSize {
    int storage;
    int depthLow;
    int depthHigh;
};
constexpr FrameBufferSize SMALL_FRAME_BUFFER{960, 480, 720};    // 10 to 15 ms
constexpr FrameBufferSize LARGE_FRAME_BUFFER{1920, 960, 1440};  // 20 to 30 ms

constexpr unsigned STATS_PASSES = 100;      // a statistics check every so many passes: 1 s
constexpr uint32_t ENLARGE_UNDERRUNS = 11;  // underruns between two checks that enlarge
