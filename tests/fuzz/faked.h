// SPDX-License-Identifier: Apache-2.0
// An execution on faked system calls: afterwards none is faked, because the fuzzer makes calls of
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

// Lets fopen find these files, but lets the fuzzer write down an input that fails.
void installFiles(FakeFiles& files);

// Errors that a call of the kernel may give, by any number.
int errorOf(uint8_t number);

// The log must hold exactly these lines; it is empty afterwards.
void requireLog(const Lines& expected);
void requireLines(const Lines& expected, const Lines& actual);

// Runs a loop that has no end, and leaves it out of a system call that it makes.
class EndlessLoop {
  public:
    template <typename Body>
    void run(Body body) {
        if (setjmp(beginning) == 0) {
            body();
        }
    }
    // Does not return. Nothing on the stack between here and run() may want its destructor.
    [[noreturn]] void leave() { longjmp(beginning, 1); }

  private:
    jmp_buf beginning = {};
};

}  // namespace uafd::fuzz
