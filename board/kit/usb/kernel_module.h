// SPDX-License-Identifier: Apache-2.0
// Kernel modules that come and go while the board runs. Any thread.
#pragma once

#include <string>

namespace board {

// Returns 0, or the errno that refused it; does not wait until the module is out of use.
int unloadModule(const std::string& name);
// With what it depends on; nothing when it is loaded already. What fails throws.
void loadModule(const std::string& name);

}  // namespace board
