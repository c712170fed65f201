// SPDX-License-Identifier: Apache-2.0
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "tools/drift/mic_simulation.h"

namespace uafd {
namespace {

TEST(DriftCases, StandInTheirPageAsTheyAreSimulated) {
    std::ifstream file(DRIFT_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::string table = drift::tableOfCases();
    EXPECT_NE(page.find(table), std::string::npos) << "docs/drift.md lacks this table:\n" << table;
}

}  // namespace
}  // namespace uafd
