// SPDX-License-Identifier: Apache-2.0
#include "channel/dev_name.h"

#include <cstdlib>
#include <cstring>

namespace uafd {

DevName::~DevName() {
    freeAll(owned);
    freeAll(replaced);
}

void DevName::set(const char* text) {
    if (owned != nullptr) {
        current.store(nullptr, std::memory_order_release);
        owned->next = replaced;
        replaced = owned;
        owned = nullptr;
    }
    if (text == nullptr) {
        return;
    }
    owned = takeBack(text);
    if (owned == nullptr) {
        owned = copyOf(text);
    }
    if (owned != nullptr) {
        current.store(owned->text, std::memory_order_release);
    }
}

void DevName::freeReplaced() {
    freeAll(replaced);
    replaced = nullptr;
}

// Removes the replaced copy with this text from the list and returns it, or null. A reader that
// still holds it sees no difference. So names that change repeatedly while a thread lives need one
// copy for each different text and no more.
DevName::Copy* DevName::takeBack(const char* text) {
    for (Copy** link = &replaced; *link != nullptr; link = &(*link)->next) {
        Copy* const copy = *link;
        if (strcmp(copy->text, text) == 0) {
            *link = copy->next;
            copy->next = nullptr;
            return copy;
        }
    }
    return nullptr;
}

DevName::Copy* DevName::copyOf(const char* text) {
    auto* const copy = static_cast<Copy*>(malloc(sizeof(Copy)));
    if (copy == nullptr) {
        return nullptr;
    }
    *copy = {strdup(text), nullptr};
    if (copy->text == nullptr) {
        free(copy);
        return nullptr;
    }
    return copy;
}

void DevName::freeAll(Copy* copies) {
    while (copies != nullptr) {
        Copy* const next = copies->next;
        free(copies->text);
        free(copies);
        copies = next;
    }
}

}  // namespace uafd
