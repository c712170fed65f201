// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/faked.h"

#include <cerrno>
#include <iterator>
#include <utility>

#include <gtest/gtest.h>

#include "tests/fuzz/fuzz.h"

namespace uafd::fuzz {

Faked::Faked() {
    testing::GTEST_FLAG(break_on_failure) = true;  // a fake's complaint ends the run
}

Faked::~Faked() {
    fake_sys::reset();
    fake_log::clear();
}

void installFiles(FakeFiles& files) {
    files.install();
    auto& hook = fake_sys::hooks().fopen;
    hook = [faked = std::move(hook)](const char* path, const char* mode) {
        return mode[0] == 'r' ? faked(path, mode) : fake_sys::real::fopen(path, mode);
    };
}

int errorOf(uint8_t number) {
    constexpr int errors[] = {EAGAIN, EINTR, EIO, EBADF, ENODEV, ENOMEM, ENOBUFS, ECONNREFUSED};
    return errors[number % std::size(errors)];
}

void requireLog(const Lines& expected) {
    requireLines(expected, fake_log::take());
}

void requireLines(const Lines& expected, const Lines& actual) {
    for (size_t i = 0; i < expected.size() && i < actual.size(); i++) {
        requireSame(expected[i].text, actual[i].text, "the log's lines are the expected ones");
        require(expected[i] == actual[i], "the log's lines have their levels and tags");
    }
    requireSame(actual.size() > expected.size() ? "" : "end",
                actual.size() > expected.size() ? actual[expected.size()].text : "end",
                "the log holds nothing else");
    require(actual.size() == expected.size(), "the log holds every line");
}

}  // namespace uafd::fuzz
