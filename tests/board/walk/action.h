// SPDX-License-Identifier: Apache-2.0
// An action of a kind of walk, and the choice among them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <numeric>
#include <vector>

#include "board/kit/random.h"

namespace uafd {

template <typename Walk>
struct Action {
    const char* name;
    int weight;  // how often it is chosen, relative to the others
    std::function<void(Walk& walk)> run;
};

template <typename Walk>
const Action<Walk>& chooseAction(board::Random& random, const std::vector<Action<Walk>>& actions) {
    const int64_t weights = std::accumulate(
        actions.begin(), actions.end(), int64_t{0},
        [](int64_t sum, const Action<Walk>& action) { return sum + action.weight; });
    int64_t at = random.below(weights);
    auto action = actions.begin();
    while (at >= action->weight) {
        at -= action->weight;
        ++action;
    }
    return *action;
}

template <typename Item, size_t count, typename Walk>
Item pick(Walk& walk, const Item (&items)[count]) {
    return items[walk.random.below(count)];
}

}  // namespace uafd
