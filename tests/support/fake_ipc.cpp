// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_ipc.h"

#include <mutex>

#include "ipc/uaf_ipc.h"
#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

using Guard = std::lock_guard<fake_sys::Mutex>;

fake_sys::Mutex queuedMutex;
std::vector<fake_ipc::Message>& queued() {
    static auto* const stored = new std::vector<fake_ipc::Message>;
    return *stored;
}

}  // namespace

namespace fake_ipc {

std::vector<Message> messages() {
    const Guard guard(queuedMutex);
    return queued();
}

void clear() {
    const Guard guard(queuedMutex);
    queued().clear();
    onMessage() = nullptr;
}

std::function<void(const Message&)>& onMessage() {
    static auto* const hook = new std::function<void(const Message&)>;
    return *hook;
}

const fake_sys::Restorer kRestorer(clear);

}  // namespace fake_ipc

void UafIpc::queueMsg(const UsbAudioMsgT& msg) {
    const fake_ipc::Message message{msg.type, msg.data};
    if (fake_ipc::onMessage()) {
        fake_ipc::onMessage()(message);
    }
    const Guard guard(queuedMutex);
    queued().push_back(message);
}

}  // namespace uafd
