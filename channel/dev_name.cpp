#include "channel/dev_name.h"

#include <cstdlib>
#include <cstring>
#include <new>

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
    char* const copiedText = text != nullptr ? strdup(text) : nullptr;
    if (copiedText == nullptr) {
        return;
    }
    owned = new (std::nothrow) Copy{copiedText, nullptr};
    if (owned == nullptr) {
        free(copiedText);
        return;
    }
    current.store(copiedText, std::memory_order_release);
}

void DevName::freeReplaced() {
    freeAll(replaced);
    replaced = nullptr;
}

void DevName::freeAll(Copy* copies) {
    while (copies != nullptr) {
        Copy* const next = copies->next;
        free(copies->text);
        delete copies;
        copies = next;
    }
}
