// SPDX-License-Identifier: Apache-2.0
// What an app may do in any walk. One thread.
#pragma once

#include "tests/board/walk/walk.h"

namespace uafd {

void restartApp(Walk& walk);
void killApp(Walk& walk);
void freezeApp(Walk& walk);
void thawApp(Walk& walk);
void slowApp(Walk& walk);
void loseSocket(Walk& walk);
void changeFifo(Walk& walk);
void sendMessage(Walk& walk);
void sendOddDatagram(Walk& walk);
void passTime(Walk& walk);

}  // namespace uafd
