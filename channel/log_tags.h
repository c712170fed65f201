// SPDX-License-Identifier: Apache-2.0
// The log tags of the two directions, one of which is a file's LOG_TAG.
#pragma once

constexpr char SOURCE_LOG_TAG[] = "UAFSRC";  // app to host
constexpr char SINK_LOG_TAG[] = "UAFSNK";    // host to app
