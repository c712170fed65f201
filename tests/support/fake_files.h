// SPDX-License-Identifier: Apache-2.0
// Text files that exist only for a test: fopen finds these and no others.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace uafd {

class FakeFiles {
  public:
    // Installs the fopen hook; *this must outlive the calls.
    void install();

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
    std::map<std::string, File> files;
};

}  // namespace uafd
