// The commands; each returns the exit status. One thread.
#pragma once

#include "companion/tool/command_line.h"

int recordSpeaker(const CommandLine& line);
int playAsMicrophone(const CommandLine& line);
int loopBack(const CommandLine& line);
int printEvents(const CommandLine& line);
int setVolume(const CommandLine& line);
int setMute(const CommandLine& line);
int showLevel(const CommandLine& line);
int measureLatency(const CommandLine& line);
int checkDaemon(const CommandLine& line);
