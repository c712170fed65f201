// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <sys/system_properties.h>

namespace {

constexpr char kPropertiesDir[] = "/run/properties";
constexpr size_t kValueLengthMax = PROP_VALUE_MAX - 1;

// A name must stay within the folder.
bool isPropertyName(const char* name) {
    return name[0] != '\0' && name[0] != '.' && strchr(name, '/') == nullptr &&
           strlen(name) <= NAME_MAX;
}

// Reads until the value is full or the file ends; returns the number of characters.
size_t readValue(int fd, char* value) {
    size_t length = 0;
    while (length < kValueLengthMax) {
        const ssize_t got = read(fd, value + length, kValueLengthMax - length);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            break;
        }
        if (got > 0) {
            length += static_cast<size_t>(got);
        }
    }
    return length;
}

}  // namespace

int __system_property_get(const char* name, char* value) {
    value[0] = '\0';
    if (!isPropertyName(name)) {
        return 0;
    }
    char path[sizeof kPropertiesDir + 1 + NAME_MAX];
    snprintf(path, sizeof path, "%s/%s", kPropertiesDir, name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    value[readValue(fd, value)] = '\0';
    close(fd);
    value[strcspn(value, "\r\n")] = '\0';
    return static_cast<int>(strlen(value));
}
