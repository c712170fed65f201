// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include <android/log.h>

#include "tests/support/fake_sys.h"

namespace {

using Guard = std::lock_guard<fake_sys::Mutex>;

fake_sys::Mutex& linesMutex() {
    static auto* const mutex = new fake_sys::Mutex;
    return *mutex;
}

std::vector<fake_log::Line>& storedLines() {
    static auto* const stored = new std::vector<fake_log::Line>;
    return *stored;
}

}  // namespace

namespace fake_log {

std::ostream& operator<<(std::ostream& out, const Line& line) {
    return out << line.priority << ' ' << line.tag << " \"" << line.text << '"';
}

std::vector<Line> lines() {
    const Guard guard(linesMutex());
    return storedLines();
}

std::vector<Line> take() {
    const Guard guard(linesMutex());
    return std::exchange(storedLines(), {});
}

std::vector<Line> Tag::lines() const {
    std::vector<Line> own = fake_log::lines();
    own.erase(std::remove_if(own.begin(), own.end(),
                             [this](const Line& line) { return line.tag != name; }),
              own.end());
    return own;
}

int count(const Line& line) {
    const std::vector<Line> all = lines();
    return static_cast<int>(std::count(all.begin(), all.end(), line));
}

void clear() {
    const Guard guard(linesMutex());
    storedLines().clear();
}

std::function<void(const Line&)>& onLine() {
    static auto* const hook = new std::function<void(const Line&)>;
    return *hook;
}

}  // namespace fake_log

const fake_sys::Restorer kRestorer([] {
    fake_log::onLine() = nullptr;
    fake_log::clear();
});

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const fake_log::Line line{priority, tag, text};
    if (fake_log::onLine()) {
        fake_log::onLine()(line);
    }
    const Guard guard(linesMutex());
    storedLines().push_back(line);
    return length;
}
