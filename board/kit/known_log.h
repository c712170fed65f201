// SPDX-License-Identifier: Apache-2.0
// The lines that a working daemon may write to its log while the world around it misbehaves: those
// of docs/log.md without "!!". Lines that report a defect, such as a failed lock or an unknown
// state, are not included.
#pragma once

#include "board/kit/daemon.h"

namespace board {

bool isKnown(const LogLine& line);

}  // namespace board
