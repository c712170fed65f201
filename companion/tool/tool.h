// uafd-companion, a companion app for the command line: what its main calls.
#pragma once

// Exit statuses.
constexpr int kExitDone = 0;
constexpr int kExitFailed = 1;  // with the reason on standard error
constexpr int kExitUsage = 2;

// Runs the command that the arguments name; returns the exit status.
int runTool(int argc, char** argv);
