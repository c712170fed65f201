// SPDX-License-Identifier: Apache-2.0
// Decoding of plain-text uevents. Every message is in a heap block of exactly its length, so that
// the sanitizers report any access outside it.
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <sysutils/NetlinkEvent.h>

namespace uafd {
namespace {

using Action = NetlinkEvent::Action;

bool decode(NetlinkEvent& event, const std::string& bytes, int format = 0) {
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    memcpy(exact.get(), bytes.data(), bytes.size());
    const bool decoded = event.decode(exact.get(), static_cast<int>(bytes.size()), format);
    EXPECT_EQ(0, memcmp(exact.get(), bytes.data(), bytes.size())) << "the message was changed";
    return decoded;
}

// Joins strings as the kernel does, each with its terminator.
std::string message(std::initializer_list<std::string> strings) {
    std::string bytes;
    for (const std::string& string : strings)
        bytes += string + '\0';
    return bytes;
}

const std::string kConfiguredEvent =
    message({"change@/devices/virtual/android_usb/android0", "ACTION=change",
             "DEVPATH=/devices/virtual/android_usb/android0", "SUBSYSTEM=android_usb",
             "USB_STATE=CONFIGURED", "SEQNUM=2143"});

TEST(NetlinkEventTest, NewEventIsEmpty) {
    NetlinkEvent event;
    EXPECT_EQ(Action::kUnknown, event.getAction());
    EXPECT_EQ(nullptr, event.getSubsystem());
    EXPECT_EQ(nullptr, event.findParam("USB_STATE"));
}

TEST(NetlinkEventTest, KernelsEventIsDecoded) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, kConfiguredEvent));
    EXPECT_EQ(Action::kChange, event.getAction());
    EXPECT_STREQ("android_usb", event.getSubsystem());
    EXPECT_STREQ("CONFIGURED", event.findParam("USB_STATE"));
    EXPECT_STREQ("/devices/virtual/android_usb/android0", event.findParam("DEVPATH"));
}

TEST(NetlinkEventTest, ActionSequenceAndSubsystemAreNoParameters) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, kConfiguredEvent));
    EXPECT_EQ(nullptr, event.findParam("ACTION"));
    EXPECT_EQ(nullptr, event.findParam("SEQNUM"));
    EXPECT_EQ(nullptr, event.findParam("SUBSYSTEM"));
}

TEST(NetlinkEventTest, ActionNumbersAreThePlatforms) {
    const std::pair<const char*, int> table[] = {
        {"add", 1}, {"remove", 2}, {"change", 3}, {"move", 0}, {"online", 0}, {"", 0}, {"Add", 0}};
    for (const auto& [name, number] : table) {
        NetlinkEvent event;
        ASSERT_TRUE(decode(event, message({"x@/d", std::string("ACTION=") + name})));
        EXPECT_EQ(number, static_cast<int>(event.getAction())) << name;
    }
}

TEST(NetlinkEventTest, ActionComesFromItsFieldNotFromTheFirstString) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, message({"change@/d", "SUBSYSTEM=usb"})));
    EXPECT_EQ(Action::kUnknown, event.getAction());
}

TEST(NetlinkEventTest, ParameterIsFoundByItsWholeName) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, message({"x@/d", "USB_STATE_OLD=A", "USB_STATE=B=C",
                                       "EMPTY=", "USB_STATE=later", "NOVALUE", ""})));
    EXPECT_STREQ("B=C", event.findParam("USB_STATE"));
    EXPECT_STREQ("", event.findParam("EMPTY"));
    EXPECT_EQ(nullptr, event.findParam("USB"));
    EXPECT_EQ(nullptr, event.findParam("NOVALUE"));
    EXPECT_EQ(nullptr, event.findParam(""));
    EXPECT_EQ(nullptr, event.findParam("USB_STATE_OLD_AND_MORE"));
}

TEST(NetlinkEventTest, LastSubsystemCounts) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, message({"x@/d", "SUBSYSTEM=usb", "SUBSYSTEM=android_usb"})));
    EXPECT_STREQ("android_usb", event.getSubsystem());
}

TEST(NetlinkEventTest, OnlyThirtyTwoParametersAreKept) {
    std::string bytes = message({"x@/d"});
    for (int i = 0; i < 33; i++)
        bytes += message({"K" + std::to_string(i) + "=v"});
    bytes += message({"SUBSYSTEM=android_usb"});
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, bytes));
    EXPECT_STREQ("v", event.findParam("K31"));
    EXPECT_EQ(nullptr, event.findParam("K32"));
    EXPECT_STREQ("android_usb", event.getSubsystem());
}

TEST(NetlinkEventTest, FirstStringNeedsAnAtSign) {
    NetlinkEvent event;
    EXPECT_FALSE(decode(event, message({"libudev", "x@/d", "SUBSYSTEM=android_usb"})));
    EXPECT_EQ(nullptr, event.getSubsystem());
    EXPECT_FALSE(decode(event, "no at sign and no terminator"));
    EXPECT_FALSE(decode(event, std::string(1, '\0')));
    EXPECT_TRUE(decode(event, "@"));
}

TEST(NetlinkEventTest, NothingIsDecodedFromNothing) {
    NetlinkEvent event;
    char byte = '@';
    EXPECT_FALSE(decode(event, ""));
    EXPECT_FALSE(event.decode(&byte, -1));
    EXPECT_FALSE(event.decode(nullptr, 10));
}

TEST(NetlinkEventTest, OtherFormatsAreRefused) {
    NetlinkEvent event;
    for (const int format : {-1, 1, 2, 3})
        EXPECT_FALSE(decode(event, kConfiguredEvent, format)) << format;
    EXPECT_EQ(nullptr, event.getSubsystem());
}

TEST(NetlinkEventTest, LastStringNeedsNoTerminator) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, kConfiguredEvent + "USB_MODE=device"));
    EXPECT_STREQ("device", event.findParam("USB_MODE"));
}

TEST(NetlinkEventTest, NextDecodeForgetsTheEventBefore) {
    NetlinkEvent event;
    ASSERT_TRUE(decode(event, kConfiguredEvent));
    ASSERT_TRUE(decode(event, message({"x@/d", "OTHER=1"})));
    EXPECT_EQ(Action::kUnknown, event.getAction());
    EXPECT_EQ(nullptr, event.getSubsystem());
    EXPECT_EQ(nullptr, event.findParam("USB_STATE"));
    EXPECT_FALSE(decode(event, "nothing"));
    EXPECT_EQ(nullptr, event.findParam("OTHER"));
}

// Reads everything that an event contains, so that a wrong pointer shows.
size_t readAll(NetlinkEvent& event) {
    size_t length = event.getSubsystem() != nullptr ? strlen(event.getSubsystem()) : 0;
    for (const char* name : {"USB_STATE", "DEVPATH", "A", ""}) {
        if (const char* const value = event.findParam(name))
            length += strlen(value);
    }
    return length;
}

TEST(NetlinkEventTest, AnyBytesAreSafe) {
    std::mt19937 random(20240229);
    const std::string pieces[] = {"change@/d", "ACTION=", "SUBSYSTEM=", "SEQNUM=", "USB_STATE=",
                                  "A=",        "change",  "@",          "=",       "\xff\x80"};
    size_t decoded = 0;
    for (int round = 0; round < 20000; round++) {
        std::string bytes;
        const auto parts = random() % 12;
        for (size_t part = 0; part < parts; part++) {
            bytes += pieces[random() % std::size(pieces)];
            if (random() % 2 == 0)
                bytes += '\0';
            if (random() % 4 == 0)
                bytes += static_cast<char>(random());
        }
        NetlinkEvent event;
        decoded += decode(event, bytes);
        ASSERT_LE(readAll(event), bytes.size() * 4);
    }
    EXPECT_GT(decoded, 1000U);
    EXPECT_LT(decoded, 19000U);
}

TEST(NetlinkEventTest, EveryPrefixOfAnEventIsSafe) {
    for (size_t length = 0; length <= kConfiguredEvent.size(); length++) {
        NetlinkEvent event;
        EXPECT_EQ(length > strlen("change"), decode(event, kConfiguredEvent.substr(0, length)));
        readAll(event);
    }
}

}  // namespace
}  // namespace uafd
