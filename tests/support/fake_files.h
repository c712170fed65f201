// SPDX-License-Identifier: Apache-2.0
// Text files that exist only for a test: fopen finds these and no others.
#pragma once

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_sys.h"

namespace uafd {

class FakeFiles {
  public:
    // Installs the fopen hook; *this must outlive the calls.
    void install() {
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
            return fopencookie(new Reader{*this, path, found->second}, mode,
                               {read, nullptr, nullptr, close});
        };
    }

    void put(const std::string& path, const std::string& text) { files[path] = {text, 0, 0}; }
    // fopen of `path` fails with `openErrno`; for a file that was never put it fails with ENOENT.
    void refuse(const std::string& path, int openErrno) { files[path] = {"", openErrno, 0}; }
    // Reading fails with `readErrno` after `text`.
    void breakOff(const std::string& path, const std::string& text, int readErrno) {
        files[path] = {text, 0, readErrno};
    }

    // What happened, in order: "open PATH", "refused PATH", "close PATH". A close sets errno to
    // EBADF, so that a message made from errno afterwards shows as wrong.
    std::vector<std::string> events;
    int openNow = 0;

  private:
    struct File {
        std::string text;
        int openErrno;  // 0 = it opens
        int readErrno;  // 0 = end of file after the text
    };
    struct Reader {
        FakeFiles& owner;
        std::string path;
        File file;
        size_t position = 0;
    };

    static ssize_t read(void* cookie, char* buf, size_t size) {
        auto& reader = *static_cast<Reader*>(cookie);
        const size_t taken = reader.file.text.copy(buf, size, reader.position);
        reader.position += taken;
        if (taken == 0 && reader.file.readErrno != 0) {
            errno = reader.file.readErrno;
            return -1;
        }
        return static_cast<ssize_t>(taken);
    }
    static int close(void* cookie) {
        const std::unique_ptr<Reader> reader(static_cast<Reader*>(cookie));
        reader->owner.events.push_back("close " + reader->path);
        --reader->owner.openNow;
        errno = EBADF;
        return 0;
    }

    std::map<std::string, File> files;
};

}  // namespace uafd
