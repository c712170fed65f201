// SPDX-License-Identifier: Apache-2.0
#include "board/kit/channel_watch.h"

#include "board/kit/timeline.h"

namespace board {
namespace {

constexpr uint32_t kUsb = 0;
constexpr uint32_t kSpeaker = 1;
constexpr uint32_t kMic = 2;

}  // namespace

void ChannelWatch::see(const std::vector<Message>& messages) {
    for (size_t i = 0; i < messages.size(); ++i) {
        const bool isAnswer = messages[i] == Message{kUsb, 1} && i + 2 < messages.size() &&
                              messages[i + 1].type == kSpeaker && messages[i + 2].type == kMic;
        see(messages[i], false);
        if (isAnswer) {
            see(messages[i + 1], true);
            see(messages[i + 2], true);
            i += 2;
        }
    }
}

void ChannelWatch::see(Message message, bool mayRepeat) {
    if (message.type != kSpeaker && message.type != kMic) {
        return;
    }
    std::optional<bool>& known = told[message.type - 1];
    const bool on = message.data != 0;
    if (known == on && !mayRepeat && firstRepetition.empty()) {
        firstRepetition = "told again: " + meaningOf(message);
    }
    known = on;
}

}  // namespace board
