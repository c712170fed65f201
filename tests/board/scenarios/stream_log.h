// SPDX-License-Identifier: Apache-2.0
// What the daemon logs about a direction's stream; '#' stands for any number.
#pragma once

#include <string>
#include <vector>

#include "board/kit/audio_host.h"

namespace uafd {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines head, const Lines& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

Lines times(int count, const Lines& lines);

namespace stream_log {

// The beginning of a recovery, the end of one that succeeds, and the restart of the playback after
// a prepare.
Lines xrunMet(const board::Direction& direction);
Lines suspendMet(const board::Direction& direction);
Lines ready();
Lines kickStart(const board::Direction& direction);
// A whole recovery from an xrun.
Lines recovery(const board::Direction& direction);

// A prepare that fails with EIO after an "underrun", the log's word for every xrun, or a "suspend",
// up to the channel's own stop request.
Lines failedPrepare(const board::Direction& direction, const std::string& cause, int state);
// An error that the direction's channel reports, and its stop request in this state.
Lines failure(const board::Direction& direction, const std::string& what, int state);

Lines stopRequest(int state);
// A stop, from its fourth pass to its end.
Lines stop(const board::Direction& direction);

}  // namespace stream_log
}  // namespace uafd
