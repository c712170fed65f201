// SPDX-License-Identifier: Apache-2.0
// The fixture of tests of the simulated hardware, without a daemon: the host, and the module's
// events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/host.h"

namespace uafd {

class ModuleCase : public testing::Test {
  protected:
    void SetUp() override { host->reset(); }

    // Returns 0, or the errno with which the board refused the command.
    int command(const std::string& text) { return host->tryCommand(text); }
    int64_t counter(const std::string& key) const { return host->counter(key); }

    // What the module notes from this object's construction on.
    class Notes {
      public:
        explicit Notes(ModuleCase& module) : host(*module.host), taken(host.events().size()) {}

        // Everything since the last call.
        std::vector<board::HostEvent> take() {
            const std::vector<board::HostEvent>& all = host.events();
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(taken);
            taken = all.size();
            return {begin, all.end()};
        }
        // The texts of take(), without the host's own commands.
        std::vector<std::string> texts() {
            std::vector<std::string> texts;
            for (const board::HostEvent& event : take()) {
                if (event.text.rfind("host ", 0) != 0) {
                    texts.push_back(event.text);
                }
            }
            return texts;
        }

      private:
        board::Host& host;
        size_t taken;
    };

    // Empty while the module is unloaded.
    std::optional<board::Host> host{std::in_place};
};

}  // namespace uafd
