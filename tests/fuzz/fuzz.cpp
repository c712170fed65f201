// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace uafd {
namespace fuzz {

void require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "NOT SO: %s\n", what);
        abort();
    }
}

void requireSame(const std::string& expected, const std::string& actual, const char* what) {
    if (expected != actual) {
        fprintf(stderr, "expected: \"%s\"\nactual:   \"%s\"\n", expected.c_str(), actual.c_str());
        require(false, what);
    }
}

bool beginsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

uint32_t Input::number(int bytes) {
    uint32_t value = 0;
    for (int i = 0; i < bytes; i++) {
        value |= static_cast<uint32_t>(byte()) << 8 * i;
    }
    return value;
}

std::string Input::text(size_t n) {
    const auto* const from = next;
    next += std::min(n, static_cast<size_t>(end - next));
    return {from, next};
}

int32_t Input::size(int32_t limit) {
    constexpr uint8_t small = 40;
    constexpr uint8_t firstMiddle = 200;
    constexpr uint8_t firstSpecial = 224;
    const int32_t special[] = {
        -1,    0,         1,         2,         4,         limit - 4,     limit - 2,     limit - 1,
        limit, limit + 1, limit + 2, limit / 2, INT32_MIN, INT32_MIN + 1, INT32_MAX - 3, INT32_MAX};
    const uint8_t code = byte();
    if (code < firstSpecial) {
        return code < firstMiddle ? code % small : code;
    }
    const size_t index = code - firstSpecial;
    return index < std::size(special) ? special[index]
                                      : static_cast<int32_t>(number(2)) % (limit + 2);
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    fuzz::execute(input);
    return 0;
}

// Executions are short and many. It would take most of the time to remember the stack of each
// allocation and to keep megabytes of freed blocks out of use. With fewer than two callers
// remembered, no leak would be found.
extern "C" const char* __asan_default_options() {
    return "malloc_context_size=2:quarantine_size_mb=1:thread_local_quarantine_size_kb=64:"
           "max_malloc_fill_size=64";
}

// The target's own options come before the command line's, which override them. Without a memory
// limit the fuzzer starts no second thread, whose calls the target would fake. Leaks are searched
// for once, at the end of the process, instead of after each execution.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    static std::string options[] = {"-max_len=" + std::to_string(fuzz::kMaxInputBytes),
                                    "-rss_limit_mb=0", "-timeout=600", "-report_slow_units=600",
                                    "-detect_leaks=0"};
    static std::vector<char*> arguments(*argv, *argv + *argc);
    for (std::string& option : options) {
        arguments.insert(arguments.begin() + 1, option.data());
    }
    *argc = static_cast<int>(arguments.size());
    *argv = arguments.data();
    // A fake's complaint ends in a trap, which the fuzzer itself would not catch.
    signal(SIGTRAP, [](int) { abort(); });
    return 0;
}

}  // namespace uafd
