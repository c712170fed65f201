// SPDX-License-Identifier: Apache-2.0
#include "board/kit/known_log.h"

#include <algorithm>
#include <iterator>

namespace board {
namespace {

// As for matches().
constexpr char kSoundLibrary[] = "ALSA lib *";  // its own complaints, beside the log
constexpr const char* kKnown[] = {
#include "known_lines.inc"
};

}  // namespace

bool isKnown(const LogLine& line) {
    if (line.tag.empty()) {
        return matches(line.text, kSoundLibrary);
    }
    const std::string brief = line.brief();
    return std::any_of(std::begin(kKnown), std::end(kKnown),
                       [&](const char* known) { return matches(brief, known); });
}

}  // namespace board
