// SPDX-License-Identifier: Apache-2.0
// Replaces the Android log and keeps every line for comparison by level, tag and exact text. Any
// thread may log; a test reads copies.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace fake_log {

constexpr int kDebug = 3;
constexpr int kError = 6;

struct Line {
    int priority;      // ANDROID_LOG_*
    std::string tag;   // module tag, "UAFSRC"
    std::string text;  // exactly as formatted, with or without a line end

    bool operator==(const Line& other) const {
        return priority == other.priority && tag == other.tag && text == other.text;
    }
};
std::ostream& operator<<(std::ostream& out, const Line& line);

// Builds a module's lines as a test expects them: kSourceLog.error("...").
struct Tag {
    const char* name;

    Line debug(const std::string& text) const { return {kDebug, name, text}; }
    Line error(const std::string& text) const { return {kError, name, text}; }
    // The log's lines with this tag.
    std::vector<Line> lines() const;
};
constexpr Tag kDaemonLog{"UAFIFO"};  // daemon
constexpr Tag kChannelLog{"UAFCH"};  // channel: both
constexpr Tag kSourceLog{"UAFSRC"};  // channel: the source
constexpr Tag kSinkLog{"UAFSNK"};    // channel: the sink
constexpr Tag kAlsaLog{"UAFSND"};    // alsa
constexpr Tag kIpcLog{"UAFIPC"};     // ipc
constexpr Tag kCableLog{"UAFCBM"};   // cable
constexpr Tag kTestLog{"UAFTAG"};    // for parts that log under their user's tag

// Every line since the last clear(), oldest first.
std::vector<Line> lines();
// Every line since the last clear(); clears the log.
std::vector<Line> take();
// How often exactly this line was logged.
int count(const Line& line);
void clear();

// Called for each line when set, on the thread that logs it, without a lock held; the fixture
// unsets it. Set it before the threads that log start.
std::function<void(const Line&)>& onLine();

}  // namespace fake_log
