// SPDX-License-Identifier: Apache-2.0
#include "tests/board/scenarios/stream_log.h"

namespace uafd {
namespace {

bool isSpeaker(const board::Direction& direction) {
    return direction == board::kSpeakerDirection;
}

Lines met(const board::Direction& direction, const char* error, const char* what) {
    return {"D UAFSND: stream recovery from ...",
            std::string("D UAFSND: xrun_recovery: ") + direction.pcm + " xrun, err " + error,
            std::string("D UAFSND: ") + what};
}

}  // namespace

Lines times(int count, const Lines& lines) {
    Lines all;
    for (int i = 0; i < count; ++i) {
        all = all + lines;
    }
    return all;
}

namespace stream_log {

Lines xrunMet(const board::Direction& direction) {
    return met(direction, "-32", isSpeaker(direction) ? "overrun..." : "underrun...");
}

Lines suspendMet(const board::Direction& direction) {
    return met(direction, "-86", "suspend...");
}

Lines ready() {
    return {"D UAFSND: ready "};
}

Lines kickStart(const board::Direction& direction) {
    return isSpeaker(direction) ? Lines{} : Lines{"D UAFSRC: need to kick start"};
}

Lines recovery(const board::Direction& direction) {
    return xrunMet(direction) + ready() + kickStart(direction);
}

Lines failedPrepare(const board::Direction& direction, const std::string& cause, int state) {
    const std::string error = std::string("E ") + direction.tag + ": ";
    return Lines{"D UAFSND: Can't recovery from " + cause + ", prepare failed: Input/output error",
                 error + "ALSA xrun recovery failed (Input/output error)", error + "rc=-5"} +
           stopRequest(state);
}

Lines failure(const board::Direction& direction, const std::string& what, int state) {
    return Lines{std::string("E ") + direction.tag + ": " + what} + stopRequest(state);
}

Lines stopRequest(int state) {
    return {"D UAFCH: intfUpdate to 0, current state " + std::to_string(state)};
}

Lines stop(const board::Direction& direction) {
    const std::string stopped = "D UAFCH: UAF channel stopped. Current state is (2)";
    if (isSpeaker(direction)) {
        return {"D UAFSNK: stop, closing hw:#", "D UAFSNK: stop, closing /tmp/usbAudioFifoRx",
                stopped, "D UAFSNK: exit, loopcnt=#, pcmRead #, fifoWrite #"};
    }
    return {"D UAFSRC: stopping buffer thread", "D UAFSRC: exit buffer loop, loopcnt=#, fifoRead #",
            "D UAFSRC: stop, close hw:#", stopped, "D UAFSRC: exit, loopcnt=#, pcmWrite #"};
}

}  // namespace stream_log
}  // namespace uafd
