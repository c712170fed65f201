// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_files.h"

#include <cerrno>
#include <cstdio>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

struct Reader {
    FakeFiles* owner;
    std::string path;
    std::string text;
    int readErrno;
    size_t position = 0;
};

ssize_t readSome(void* cookie, char* buf, size_t size) {
    auto& reader = *static_cast<Reader*>(cookie);
    const size_t taken = reader.text.copy(buf, size, reader.position);
    reader.position += taken;
    if (taken == 0 && reader.readErrno != 0) {
        errno = reader.readErrno;
        return -1;
    }
    return static_cast<ssize_t>(taken);
}

int closeReader(void* cookie) {
    auto* const reader = static_cast<Reader*>(cookie);
    reader->owner->events.push_back("close " + reader->path);
    --reader->owner->openNow;
    delete reader;
    errno = EBADF;
    return 0;
}

}  // namespace

void FakeFiles::install() {
    fake_sys::hooks().fopen = [this](const char* path, const char* mode) -> FILE* {
        EXPECT_STREQ("r", mode);
        const auto found = files.find(path);
        if (found == files.end() || found->second.openErrno != 0) {
            events.push_back(std::string("refused ") + path);
            errno = found == files.end() ? ENOENT : found->second.openErrno;
            return nullptr;
        }
        events.push_back(std::string("open ") + path);
        ++openNow;
        auto* const reader = new Reader{this, path, found->second.text, found->second.readErrno};
        return fopencookie(reader, mode, {readSome, nullptr, nullptr, closeReader});
    };
}

}  // namespace uafd
