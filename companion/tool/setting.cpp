#include <cstdio>

#include "companion/tool/commands.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"

namespace {

int misunderstood(const CommandLine& line) {
    fprintf(stderr, "uafd-companion: not understood: %s %s\n", line.command.c_str(),
            line.argument.c_str());
    return kExitUsage;
}

// Beside any other app: nothing but the sending is needed.
template <typename Send>
int sendAlone(const CommandLine& line, Send&& send) {
    uafd::Companion companion;
    int error = companion.open(0, line.directory.empty() ? nullptr : line.directory.c_str());
    if (error == 0) {
        error = send(&companion);
    }
    if (error != 0) {
        fprintf(stderr, "uafd-companion: %s: %s\n", line.command.c_str(), reasonOf(error));
    }
    return error == 0 ? kExitDone : kExitFailed;
}

}  // namespace

int setVolume(const CommandLine& line) {
    int volume = 0;
    if (!readInt(line.argument, INT16_MIN, INT16_MAX, &volume)) {
        return misunderstood(line);
    }
    return sendAlone(line, [volume](uafd::Companion* companion) {
        return companion->setSpeakerVolume(static_cast<int16_t>(volume));
    });
}

int setMute(const CommandLine& line) {
    if (line.argument != "on" && line.argument != "off") {
        return misunderstood(line);
    }
    return sendAlone(line, [&line](uafd::Companion* companion) {
        return companion->setSpeakerMute(line.argument == "on");
    });
}
