// SPDX-License-Identifier: Apache-2.0
// The common cases of an app, simulated.
#pragma once

#include <string>

namespace drift {

// A Markdown table with a row for each case, as in docs/drift.md.
std::string tableOfCases();

}  // namespace drift
