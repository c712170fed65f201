// SPDX-License-Identifier: Apache-2.0
// Makes `new (std::nothrow)` fail on request, and fills its memory with garbage, like memory from a
// used heap. Linked by tests that name it; all other allocation works as usual.
#pragma once

namespace fake_new {

// Lets one allocation fail: the next one after `successes` others. Any thread.
void failAfter(int successes);
// No allocation fails.
void reset();

}  // namespace fake_new
