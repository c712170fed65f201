// SPDX-License-Identifier: Apache-2.0
// The log tags of the two directions, one of which is a file's kLogTag.
#pragma once

namespace uafd {

constexpr char kSourceLogTag[] = "UAFSRC";  // app to host
constexpr char kSinkLogTag[] = "UAFSNK";    // host to app

}  // namespace uafd
