// SPDX-License-Identifier: Apache-2.0
#include "channel/capture_sync.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "channel/log_tags.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr const char* kLogTag = kSinkLogTag;
constexpr int64_t kNsPerSecond = 1000000000;

// The board's own sound card. If its id contains one of these two words, the microphone is PCM 0,
// otherwise PCM 1.
constexpr char kTarvine[] = "tarvine";
constexpr char kRt5640[] = "rockchiprt5640c";
constexpr char kCardIdPath[] = "/proc/asound/card0/id";
constexpr char kStatusPathPcm0[] = "/proc/asound/card0/pcm0c/sub0/status";
constexpr char kStatusPathPcm1[] = "/proc/asound/card0/pcm1c/sub0/status";
constexpr int kStatusLines = 11;

using Line = char[80];

int64_t micTstampNs = -1;
int32_t synchTriesLeft = 0;

// Seconds and nanoseconds in nanoseconds; wraps for numbers that no clock shows.
int64_t nanoseconds(int64_t seconds, int64_t fraction) {
    return static_cast<int64_t>(static_cast<uint64_t>(seconds) * kNsPerSecond +
                                static_cast<uint64_t>(fraction));
}

void logOpenFailure(const char* path, int savedErrno) {
    LOGE("Failed to open %s: %s", path, strerror(savedErrno));
}

const char* statusPathOf(const char* cardId) {
    const bool onPcm0 = strstr(cardId, kTarvine) != nullptr || strstr(cardId, kRt5640) != nullptr;
    return onPcm0 ? kStatusPathPcm0 : kStatusPathPcm1;
}

// The microphone's status file, open, or null after logging why not.
FILE* openStatusFile() {
    FILE* const idFile = fopen(kCardIdPath, "r");
    if (idFile == nullptr) {
        const int savedErrno = errno;
        logOpenFailure(kCardIdPath, savedErrno);
        // Names the default status file although it was not opened: log readers expect this second
        // line when the card is unknown.
        logOpenFailure(kStatusPathPcm1, savedErrno);
        return nullptr;
    }
    Line cardId;
    if (fgets(cardId, sizeof cardId, idFile) == nullptr) {
        const int savedErrno = errno;
        LOGE("Failed to determine card type for: %s", kCardIdPath);
        fclose(idFile);
        logOpenFailure(kStatusPathPcm1, savedErrno);
        return nullptr;
    }
    const char* const statusPath = statusPathOf(cardId);
    FILE* const statusFile = fopen(statusPath, "r");
    const int savedErrno = errno;
    fclose(idFile);
    if (statusFile == nullptr) {
        logOpenFailure(statusPath, savedErrno);
    }
    return statusFile;
}

// The time stamp of a running stream within the first lines, or -1.
int64_t readTimestamp(FILE* statusFile) {
    bool running = false;
    Line line;
    for (int i = 0; i < kStatusLines && fgets(line, sizeof line, statusFile) != nullptr; ++i) {
        if (strstr(line, "state: RUNNING") != nullptr) {
            running = true;
        }
        long seconds;
        long fraction;
        if (running && strstr(line, "tstamp") != nullptr &&
            // NOLINTNEXTLINE(cert-err34-c): the kernel writes the line; other forms are no stamp
            sscanf(line, "tstamp      : %ld.%ld\n", &seconds, &fraction) == 2) {
            return nanoseconds(seconds, fraction);
        }
    }
    return -1;
}

int fail(SynchStartupState* state) {
    state->state = SYNCH_FINISHED;
    LOGE("synch startup failed");
    return -1;
}

bool isHeldBack(int64_t startNs, int64_t nowNs) {
    const auto sinceStart =
        static_cast<int64_t>(static_cast<uint64_t>(nowNs) - static_cast<uint64_t>(startNs));
    // A start in the future gives a negative phase, which is outside the range and ends the wait.
    const int64_t phaseNs = sinceStart % kSynchGridNs;
    return static_cast<uint64_t>(phaseNs - kSynchHoldFromNs) < kSynchHoldLengthNs;
}

}  // namespace

int64_t micCaptureTimestamp() {
    FILE* const statusFile = openStatusFile();
    if (statusFile == nullptr) {
        return -1;
    }
    const int64_t timestampNs = readTimestamp(statusFile);
    fclose(statusFile);
    return timestampNs;
}

int synchStartup(int frames, SynchStartupState* state) {
    switch (state->state) {
        case SYNCH_FINISHED:
            return 0;
        case SYNCH_NOT_STARTED:
            micTstampNs = micCaptureTimestamp();
            synchTriesLeft = kSynchTries;
            state->state = SYNCH_WAITING;
            break;
        case SYNCH_WAITING:
            break;
        default:
            return fail(state);
    }
    // A period without frames is never the first one written, but it uses up a try.
    if (micTstampNs < 1 || --synchTriesLeft < 0) {
        return fail(state);
    }
    if (frames < 1) {
        return 1;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (isHeldBack(micTstampNs, nanoseconds(now.tv_sec, now.tv_nsec))) {
        return 1;
    }
    state->state = SYNCH_FINISHED;
    LOGD("synch startup ok");
    return 0;
}

}  // namespace uafd
