// SPDX-License-Identifier: Apache-2.0
// The name of the test that runs, as the name of a file.
#pragma once

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

namespace uafd {

inline std::string caseName() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "." + info->name();
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

}  // namespace uafd
