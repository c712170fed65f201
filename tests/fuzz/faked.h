// SPDX-License-Identifier: Apache-2.0
// One execution on faked system calls. Afterwards none is faked, because the fuzzer makes calls of
// its own, and the log is empty again.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/fake_files.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

namespace uafd::fuzz {

using Lines = std::vector<fake_log::Line>;

struct Faked {
    Faked();
    ~Faked();
    Faked(const Faked&) = delete;
    Faked& operator=(const Faked&) = delete;
};

// Makes fopen find these files, but still lets the fuzzer save an input that fails.
void installFiles(FakeFiles& files);

// An errno that a system call may return, chosen by any number.
int errorOf(uint8_t number);

// The log must hold exactly these lines; it is empty afterwards.
void requireLog(const Lines& expected);
void requireLines(const Lines& expected, const Lines& actual);

// Runs an endless loop, and leaves it from within one of its system calls.
class EndlessLoop {
  public:
    template <typename Body>
    void run(Body body) {
        if (setjmp(beginning) == 0) {
            body();
        }
    }
    // Does not return. No object on the stack between here and run() may need its destructor.
    [[noreturn]] void leave() { longjmp(beginning, 1); }

  private:
    jmp_buf beginning = {};
};

}  // namespace uafd::fuzz
