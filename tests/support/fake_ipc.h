// SPDX-License-Identifier: Apache-2.0
// Replaces the queue of messages to the companion app and keeps every message for comparison. It is
// linked, instead of the real queue, by tests of parts that only produce messages.
//
// Any thread may queue; a test reads copies.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace uafd::fake_ipc {

using Message = std::pair<uint32_t, uint32_t>;  // type, data

// Every message since the last clear(), oldest first.
std::vector<Message> messages();
// Removes the messages and the hook.
void clear();

// Called for each message when set, on the thread that queues it, without a lock held. Set before
// the threads that queue start.
std::function<void(const Message&)>& onMessage();

}  // namespace uafd::fake_ipc
