// SPDX-License-Identifier: Apache-2.0
// A channel's device name: copied when it is set, read without a lock, and kept as long as a reader
// may use it.
#include "channel/dev_name.h"

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

class DevNameTest : public fake_sys::Test {
  protected:
    DevName name;
};

TEST_F(DevNameTest, IsUnsetAtFirst) {
    EXPECT_EQ(nullptr, name.load());
}

TEST_F(DevNameTest, KeepsACopyOfTheText) {
    char text[] = "hw:1";
    name.set(text);
    text[3] = '9';
    EXPECT_STREQ("hw:1", name.load());
}

TEST_F(DevNameTest, TakesTheNewestText) {
    name.set("hw:1");
    name.set("hw:2");
    EXPECT_STREQ("hw:2", name.load());
}

TEST_F(DevNameTest, NullUnsetsTheName) {
    name.set("hw:1");
    name.set(nullptr);
    EXPECT_EQ(nullptr, name.load());
    name.set(nullptr);
    EXPECT_EQ(nullptr, name.load());
}

TEST_F(DevNameTest, EmptyTextIsAName) {
    name.set("");
    EXPECT_STREQ("", name.load());
}

// A reader loads the pointer once, and may use it for a long time.
TEST_F(DevNameTest, ReplacedCopiesStayReadable) {
    name.set("first");
    const char* const first = name.load();
    name.set("second");
    const char* const second = name.load();
    name.set(nullptr);
    name.set("third");
    EXPECT_STREQ("first", first);
    EXPECT_STREQ("second", second);
}

TEST_F(DevNameTest, FreeingTheReplacedKeepsTheCurrentCopy) {
    name.set("first");
    name.set("second");
    name.freeReplaced();
    name.freeReplaced();
    EXPECT_STREQ("second", name.load());
}

// The same names come and go for months while a thread lives.
TEST_F(DevNameTest, AReplacedCopyOfTheTextIsTakenBack) {
    name.set("hw:1");
    const char* const first = name.load();
    name.set("hw:10");
    const char* const second = name.load();
    EXPECT_STREQ("hw:10", second);
    name.set("hw");
    name.set("hw:1");
    EXPECT_EQ(first, name.load());
    name.set("hw:1");
    EXPECT_EQ(first, name.load());
    name.set(nullptr);
    name.set("hw:10");
    EXPECT_EQ(second, name.load());
}

TEST_F(DevNameTest, ACopyThatWasTakenBackIsNotFreedWithTheReplaced) {
    name.set("hw:1");
    name.set("hw:2");
    name.set("hw:3");
    name.set("hw:1");
    name.freeReplaced();
    EXPECT_STREQ("hw:1", name.load());
    name.set("hw:2");
    name.freeReplaced();
    EXPECT_STREQ("hw:2", name.load());
}

TEST_F(DevNameTest, IsUnsetWhenTheTextCannotBeCopied) {
    name.set("hw:1");
    fake_sys::hooks().strdup = [](const char*) { return nullptr; };
    name.set("hw:2");
    EXPECT_EQ(nullptr, name.load());
    fake_sys::reset();
    name.set("hw:3");
    EXPECT_STREQ("hw:3", name.load());
}

TEST_F(DevNameTest, IsUnsetWhenTheCopyCannotBeKept) {
    name.set("hw:1");
    fake_sys::hooks().malloc = [](size_t) { return nullptr; };
    name.set("hw:2");
    EXPECT_EQ(nullptr, name.load());
    fake_sys::reset();
    name.set("hw:3");
    EXPECT_STREQ("hw:3", name.load());
}

TEST_F(DevNameTest, PrintsAnUnsetNameAsNull) {
    EXPECT_STREQ("(null)", DevName::printable(nullptr));
    EXPECT_STREQ("hw:1", DevName::printable("hw:1"));
}

// While the texts are set and cleared, a reader sees one of them whole, or none.
TEST_F(DevNameTest, ReaderSeesWholeTextsWhileTheyAreReplaced) {
    std::atomic<bool> done{false};
    std::atomic<int> seen{0};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            const char* const text = name.load();
            if (text != nullptr) {
                ++seen;
                const std::string copy = text;
                torn += copy != "hw:1" && copy != "/tmp/usbAudioFifoTx";
            }
        }
    });
    for (int i = 0; i < 1000 || seen < 1000; ++i) {
        name.set(i % 2 == 0 ? "hw:1" : "/tmp/usbAudioFifoTx");
        if (i % 8 == 0) {
            std::this_thread::yield();
            name.set(nullptr);
        }
    }
    done = true;
    reader.join();
    EXPECT_EQ(0, torn);
}

}  // namespace
}  // namespace uafd
