// SPDX-License-Identifier: Apache-2.0
// The log tags of the two directions. A file that belongs to one direction has its tag as kLogTag.
#pragma once

namespace uafd {

constexpr char kSourceLogTag[] = "UAFSRC";  // app to host
constexpr char kSinkLogTag[] = "UAFSNK";    // host to app

}  // namespace uafd
