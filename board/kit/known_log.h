// SPDX-License-Identifier: Apache-2.0
// The lines that a working daemon may write to its log while the world around it misbehaves: those
// of docs/log.md without "!!". Lines of defects, such as a lock that fails or a state that there is
// not, are not among them.
#pragma once

#include "board/kit/daemon.h"

namespace board {

bool isKnown(const LogLine& line);

}  // namespace board
