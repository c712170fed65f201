// SPDX-License-Identifier: Apache-2.0
// What the daemon has told the app about the channels: on and off must alternate. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/app.h"

namespace board {

class ChannelWatch {
  public:
    // The next messages. An answer to a sync-up repeats the state and is known by its first message
    // {0, 1} with {1, on} and {2, on} right after it.
    void see(const std::vector<Message>& messages);
    // Messages may have been lost: the next ones are not compared with the earlier ones.
    void forget() { told[0] = told[1] = std::nullopt; }

    // The last state of channel 1 or 2; off at first.
    bool isOn(uint32_t channel) const { return told[channel - 1].value_or(false); }
    // The first message that repeated a state, or an empty text.
    const std::string& repetition() const { return firstRepetition; }

  private:
    void see(Message message, bool mayRepeat);

    std::optional<bool> told[2] = {false, false};
    std::string firstRepetition;
};

}  // namespace board
