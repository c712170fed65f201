// SPDX-License-Identifier: Apache-2.0
// What the sound card's id and the microphone's status file may contain or refuse, and what the
// clock may show when periods arrive. The start time, the verdict on each period and the log must
// be those of a simple reading.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "channel/uaf_snk.h"
#include "tests/fuzz/faked.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_files.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 48;

namespace {

using fake_log::kSinkLog;
using fuzz::require;

constexpr size_t kLineCharacters = 79;
constexpr int kLinesMax = 11;
constexpr int kTries = 600;
const std::string kIdFile = "/proc/asound/card0/id";
const std::string kStatusFiles[] = {"/proc/asound/card0/pcm0c/sub0/status",
                                    "/proc/asound/card0/pcm1c/sub0/status"};

const std::string kWords[] = {std::string(1, '\0'),
                              "tarvine",
                              "rockchiprt5640c",
                              "state: RUNNING",
                              "\n",
                              "tstamp      : ",
                              "1700000000.123456789\n",
                              ".",
                              "tstamp",
                              ":",
                              "state: PREPARED\n",
                              std::string(70, ' '),
                              "9223372036854775807",
                              "trigger_time: 1.5\n",
                              "x\nx\nx\nx\nx\nx\nx\nx\n",
                              "-",
                              "state: RUNNING\ntstamp      : 1700000000.123456789\n",
                              "state: RUNNING\ntstamp      : "};

// A file, and its lines as they are read: none longer than kLineCharacters, and the last one lost
// when the read fails within it.
struct TextFile {
    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min({text.find('\n', at) + 1, text.size() + 1});
            const bool ends = end > at && end <= text.size() && end - at <= kLineCharacters;
            const size_t n = ends ? end - at : std::min(text.size() - at, kLineCharacters);
            if (!ends && n < kLineCharacters && breaksOff) {
                break;
            }
            all.push_back(std::string(text, at, n).c_str());
            at += n;
        }
        return all;
    }

    std::string text;
    bool missing = false;
    bool breaksOff = false;
};

// "tstamp", ":", seconds, ".", nanoseconds, with white space wherever a scan skips it.
bool scan(const std::string& line, long& seconds, long& fraction) {
    const auto skip = [&line](size_t at) {
        return std::min(line.find_first_not_of(" \t\n\v\f\r", at), line.size());
    };
    if (line.compare(0, 6, "tstamp") != 0) {
        return false;
    }
    const size_t colon = skip(6);
    if (colon >= line.size() || line[colon] != ':') {
        return false;
    }
    char* rest = nullptr;
    const char* const first = line.c_str() + colon + 1;
    seconds = strtol(first, &rest, 10);
    if (rest == first || *rest != '.') {
        return false;
    }
    const char* const second = rest + 1;
    fraction = strtol(second, &rest, 10);
    return rest != second;
}

class CaptureRun {
  public:
    explicit CaptureRun(fuzz::Input& input) : input(input) {
        fuzz::installFiles(files);
        id = put(kIdFile);
        put(kStatusFiles[0]);
        put(kStatusFiles[1]);
        fake_sys::hooks().clock_gettime = [this](clockid_t clock, timespec* now) {
            require(clock == CLOCK_REALTIME, "the kernel's clock of the start time is read");
            clockReads++;
            *now = {nowNs / 1000000000, nowNs % 1000000000};
            return 0;
        };
    }

    void run() {
        const int64_t startNs = timestamp();
        errno = 0;  // an empty file is reported with the errno of an earlier call
        require(UafSnk::micCaptureTimestamp() == startNs, "the start time is the file's");
        fuzz::requireLog(expected);
        expected.clear();
        require(timestamp() == startNs, "the files stay as they are");
        while (!input.empty()) {
            period(startNs);
        }
        if (state.state != SYNCH_NOT_STARTED) {
            fuzz::requireLog(expected);
        }
        require(files.openNow == 0, "every file is closed");
    }

  private:
    TextFile put(const std::string& path) {
        const uint8_t how = input.byte();
        TextFile file;
        const bool isId = path == kIdFile;
        file.text = fuzz::expand(input.text(isId ? how % 4 : how % 16), kWords);
        if (how >= 240) {
            file.missing = true;
            files.refuse(path, ENOENT);
        } else if (how >= 224) {
            file.breaksOff = true;
            files.breakOff(path, file.text, EIO);
        } else {
            files.put(path, file.text);
        }
        if (!isId) {
            statuses.push_back(file);
        }
        return file;
    }

    // Reads the start time and checks the log.
    int64_t timestamp() {
        const std::vector<std::string> ids = id.lines();
        if (id.missing || ids.empty()) {
            const std::string reason = strerror(id.missing ? ENOENT : id.breaksOff ? EIO : 0);
            expected.push_back(
                kSinkLog.error(id.missing ? "Failed to open " + kIdFile + ": " + reason
                                          : "Failed to determine card type for: " + kIdFile));
            expected.push_back(kSinkLog.error("Failed to open " + kStatusFiles[1] + ": " + reason));
            return -1;
        }
        const bool known = ids[0].find("tarvine") != std::string::npos ||
                           ids[0].find("rockchiprt5640c") != std::string::npos;
        const TextFile& status = statuses[known ? 0 : 1];
        if (status.missing) {
            expected.push_back(kSinkLog.error("Failed to open " + kStatusFiles[known ? 0 : 1] +
                                              ": No such file or directory"));
            return -1;
        }
        return timestampIn(status.lines());
    }

    static int64_t timestampIn(const std::vector<std::string>& lines) {
        bool running = false;
        int count = 0;
        for (const std::string& line : lines) {
            long seconds = 0;
            long fraction = 0;
            if (count++ == kLinesMax) {
                break;
            }
            running = running || line.find("state: RUNNING") != std::string::npos;
            if (running && scan(line, seconds, fraction)) {
                return static_cast<int64_t>(static_cast<uint64_t>(seconds) * 1000000000 +
                                            static_cast<uint64_t>(fraction));
            }
        }
        return -1;
    }

    // A period, or as many periods without frames as leave a few tries.
    void period(int64_t startNs) {
        const uint8_t how = input.byte();
        const int times = how == 255 ? kTries - 2 : 1;
        const int frames = how == 255 ? 0 : how % 8 == 0 ? -1 + how / 128 : 240;
        const int64_t phaseNs = int64_t{input.byte()} * 100000 - (how % 16 == 1 ? 10000000 : 0) +
                                (how % 4 == 2   ? 1
                                 : how % 4 == 3 ? -1
                                                : 0);
        nowNs = std::max<int64_t>(0, startNs > INT64_MAX / 2 ? phaseNs : startNs + phaseNs);
        for (int i = 0; i < times; i++) {
            const int reads = clockReads;
            const int verdict = verdictOn(startNs, frames);
            const bool looks = looksAtClock;
            errno = 0;
            require(UafSnk::synchStartup(frames, &state) == verdict, "the verdict is as expected");
            require(clockReads - reads == (looks ? 1 : 0), "the clock is read when it counts");
            require(state.state == (finished ? SYNCH_FINISHED : SYNCH_WAITING),
                    "the state follows from it");
        }
    }

    int verdictOn(int64_t startNs, int frames) {
        looksAtClock = false;
        if (finished) {
            return 0;
        }
        if (startNs < 1 || triesLeft-- == 0) {
            finished = true;
            expected.push_back(kSinkLog.error("synch startup failed"));
            return -1;
        }
        if (frames < 1) {
            return 1;
        }
        looksAtClock = true;
        const auto phaseNs =
            static_cast<int64_t>(static_cast<uint64_t>(nowNs) - static_cast<uint64_t>(startNs)) %
            10000000;
        if (phaseNs >= 3500000 && phaseNs < 8500000) {
            return 1;
        }
        finished = true;
        expected.push_back(kSinkLog.debug("synch startup ok"));
        return 0;
    }

    const fuzz::Faked faked;
    fuzz::Input& input;
    FakeFiles files;
    TextFile id;
    std::vector<TextFile> statuses;
    fuzz::Lines expected;
    SynchStartupState state;
    int64_t nowNs = 0;
    int clockReads = 0;
    int triesLeft = kTries;
    bool finished = false;
    bool looksAtClock = false;
};

}  // namespace

void fuzz::execute(Input& input) {
    CaptureRun(input).run();
}

}  // namespace uafd
