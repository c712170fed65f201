// SPDX-License-Identifier: Apache-2.0
// The log tag of this folder's files.
#pragma once

namespace uafd {

constexpr char kLogTag[] = "UAFIFO";

}  // namespace uafd
