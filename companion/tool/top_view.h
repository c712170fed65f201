// SPDX-License-Identifier: Apache-2.0
// How top shows facts: as lines for a terminal, and as JSON. Functions without state.
#pragma once

#include <string>
#include <vector>

#include "companion/tool/facts.h"

namespace uafd {

// What a piece of text means; a terminal shows it as a colour.
enum class Tone { kPlain, kTitle, kGood, kOdd, kBad };

struct Piece {
    std::string text;  // printable ASCII
    Tone tone = Tone::kPlain;
};
using Line = std::vector<Piece>;

// At most `columns` wide when that is 60 or more.
std::vector<Line> viewOf(const Facts& facts, const std::string& time, size_t columns);

// The line's text, cut off at `columns`, without a line end; with the terminal's codes for colours
// or without.
std::string textOf(const Line& line, size_t columns, bool isColoured);

// One line, with its end. docs/app.md describes the keys.
std::string jsonOf(const Facts& facts, const std::string& time);

}  // namespace uafd
