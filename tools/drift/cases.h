// SPDX-License-Identifier: Apache-2.0
// The cases that an app's developer asks for, simulated.
#pragma once

#include <string>

namespace drift {

// A Markdown table, a row for each case, as it stands in docs/drift.md.
std::string tableOfCases();

}  // namespace drift
