// SPDX-License-Identifier: Apache-2.0
// Stands in for the Android log: keeps every line for comparison by level, tag and exact text.
// Any thread may log; a test reads copies.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace fake_log {

constexpr int DEBUG = 3;
constexpr int ERROR = 6;

struct Line {
    int priority;      // ANDROID_LOG_*
    std::string tag;   // module tag, "UAFSRC"
    std::string text;  // the formatted text to the letter, line end (or its absence) included

    bool operator==(const Line& other) const {
        return priority == other.priority && tag == other.tag && text == other.text;
    }
};
std::ostream& operator<<(std::ostream& out, const Line& line);

// Every line since the last clear(), oldest first.
std::vector<Line> lines();
// The same, and forgets them.
std::vector<Line> take();
// How often exactly this line was logged.
int count(int priority, const std::string& tag, const std::string& text);
void clear();

// Called for each line when set, on the thread that logs it, without a lock held; unset by the
// fixtures. Set before the threads that log start.
std::function<void(const Line&)>& onLine();

}  // namespace fake_log
