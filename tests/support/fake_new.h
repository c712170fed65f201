// SPDX-License-Identifier: Apache-2.0
// Makes `new (std::nothrow)` fail on demand, and what it gives dirty, as memory from a used heap
// is. Linked by tests that name it; everything else that allocates goes on.
#pragma once

namespace fake_new {

// One allocation fails: the next one after `successes` others. Any thread.
void failAfter(int successes);
// No allocation fails.
void reset();

}  // namespace fake_new
