// SPDX-License-Identifier: Apache-2.0
#include <cstring>
#include <new>

#include <sysutils/NetlinkEvent.h>

namespace {

constexpr int kFormatAscii = 0;

// What follows the prefix, or null when the text does not begin with it.
const char* afterPrefix(const char* text, const char* prefix) {
    const size_t length = strlen(prefix);
    return strncmp(text, prefix, length) == 0 ? text + length : nullptr;
}

NetlinkEvent::Action actionFromName(const char* name, NetlinkEvent::Action otherwise) {
    if (strcmp(name, "add") == 0) {
        return NetlinkEvent::Action::kAdd;
    }
    if (strcmp(name, "remove") == 0) {
        return NetlinkEvent::Action::kRemove;
    }
    if (strcmp(name, "change") == 0) {
        return NetlinkEvent::Action::kChange;
    }
    return otherwise;
}

}  // namespace

NetlinkEvent::NetlinkEvent() = default;

NetlinkEvent::~NetlinkEvent() = default;

bool NetlinkEvent::decode(char* buffer, int size, int format) {
    clear();
    if (buffer == nullptr || size <= 0 || format != kFormatAscii) {
        return false;
    }
    const size_t length = static_cast<size_t>(size);
    message.reset(new (std::nothrow) char[length + 1]);
    if (message == nullptr) {
        return false;
    }
    memcpy(message.get(), buffer, length);
    message[length] = '\0';

    const char* text = message.get();
    const char* const end = text + length;
    if (strchr(text, '@') == nullptr) {
        return false;
    }
    for (text += strlen(text) + 1; text < end; text += strlen(text) + 1) {
        takeField(text);
    }
    return true;
}

void NetlinkEvent::takeField(const char* text) {
    if (const char* const actionName = afterPrefix(text, "ACTION=")) {
        action = actionFromName(actionName, action);
    } else if (const char* const subsystemName = afterPrefix(text, "SUBSYSTEM=")) {
        subsystem = subsystemName;
    } else if (afterPrefix(text, "SEQNUM=") == nullptr && paramCount < NL_PARAMS_MAX) {
        params[paramCount++] = text;
    }
}

const char* NetlinkEvent::findParam(const char* paramName) {
    for (int i = 0; i < paramCount; ++i) {
        const char* const rest = afterPrefix(params[i], paramName);
        if (rest != nullptr && *rest == '=') {
            return rest + 1;
        }
    }
    return nullptr;
}

void NetlinkEvent::clear() {
    message.reset();
    action = Action::kUnknown;
    subsystem = nullptr;
    paramCount = 0;
}
