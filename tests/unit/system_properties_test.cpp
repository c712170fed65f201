// SPDX-License-Identifier: Apache-2.0
// Properties on systems other than Android: files in a temporary folder replace those in
// /run/properties.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/system_properties.h>

#include "tests/support/fake_sys.h"
#include "tests/support/temp_dir.h"

namespace uafd {
namespace {

const std::string kProperties = "/run/properties/";

class SystemPropertiesTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().open = [this](const char* path, int flags) {
            opened.push_back(path);
            EXPECT_EQ(O_RDONLY | O_CLOEXEC, flags);
            const int fd = fake_sys::real::open(
                (folder.path() + "/" + opened.back().substr(kProperties.size())).c_str(), flags);
            descriptors += fd >= 0;
            return fd;
        };
        fake_sys::hooks().close = [this](int fd) {
            descriptors--;
            return fake_sys::real::close(fd);
        };
    }

    // Returns the value after the call, which must return its length.
    std::string get(const std::string& name) {
        char value[PROP_VALUE_MAX + 1];
        memset(value, '#', sizeof value);
        const int length = __system_property_get(name.c_str(), value);
        EXPECT_EQ('#', value[PROP_VALUE_MAX]) << "wrote beyond the value";
        EXPECT_EQ(static_cast<int>(strlen(value)), length);
        EXPECT_EQ(0, descriptors) << "left a file open";
        return value;
    }

    TempDir folder;
    std::vector<std::string> opened;
    int descriptors = 0;
};

TEST_F(SystemPropertiesTest, ValueIsTheFilesLineWithoutItsEnd) {
    folder.write("sys.usb.controller", "ff300000.usb\n");
    EXPECT_EQ("ff300000.usb", get("sys.usb.controller"));
    EXPECT_EQ(std::vector<std::string>{kProperties + "sys.usb.controller"}, opened);
    folder.write("sys.usb.config", "mtp,adb");
    EXPECT_EQ("mtp,adb", get("sys.usb.config"));
    folder.write("two.lines", "first\r\nsecond\n");
    EXPECT_EQ("first", get("two.lines"));
}

TEST_F(SystemPropertiesTest, AbsentOrEmptyPropertyIsEmpty) {
    EXPECT_EQ("", get("sys.usb.config"));
    folder.write("empty", "");
    EXPECT_EQ("", get("empty"));
    folder.write("blank", "\n");
    EXPECT_EQ("", get("blank"));
}

TEST_F(SystemPropertiesTest, LongValueIsCutTo91Characters) {
    folder.write("fits", std::string(91, 'v') + "\n");
    EXPECT_EQ(std::string(91, 'v'), get("fits"));
    folder.write("long", std::string(92, 'v') + "\n");
    EXPECT_EQ(std::string(91, 'v'), get("long"));
    folder.write("huge", std::string(100000, 'v'));
    EXPECT_EQ(std::string(91, 'v'), get("huge"));
}

TEST_F(SystemPropertiesTest, NameThatLeavesTheFolderFindsNothing) {
    folder.write(".hidden", "secret\n");
    folder.write("plain", "value\n");
    for (const std::string name :
         {"", ".", "..", ".hidden", "/etc/passwd", "../plain", "a/b", "plain/"})
        EXPECT_EQ("", get(name)) << name;
    EXPECT_EQ("", get(std::string(256, 'n')));
    EXPECT_TRUE(opened.empty());
}

TEST_F(SystemPropertiesTest, LongestNameIsReadWhole) {
    const std::string name(255, 'n');
    folder.write(name, "value\n");
    EXPECT_EQ("value", get(name));
}

TEST_F(SystemPropertiesTest, FolderInAPropertysPlaceIsEmpty) {
    ASSERT_EQ(0, mkdir((folder.path() + "/folder").c_str(), 0700));
    EXPECT_EQ("", get("folder"));
}

TEST_F(SystemPropertiesTest, ShortAndInterruptedReadsGoOn) {
    folder.write("sys.usb.config", "mtp,adb\n");
    int calls = 0;
    fake_sys::hooks().read = [&](int fd, void* data, size_t) -> ssize_t {
        errno = EINTR;
        return ++calls % 2 == 1 ? -1 : fake_sys::real::read(fd, data, 1);
    };
    EXPECT_EQ("mtp,adb", get("sys.usb.config"));
    EXPECT_EQ(18, calls);
}

TEST_F(SystemPropertiesTest, FailedReadEndsTheValue) {
    folder.write("sys.usb.config", "mtp,adb\n");
    int calls = 0;
    fake_sys::hooks().read = [&](int fd, void* data, size_t) -> ssize_t {
        errno = EIO;
        return ++calls > 3 ? -1 : fake_sys::real::read(fd, data, 1);
    };
    EXPECT_EQ("mtp", get("sys.usb.config"));
}

}  // namespace
}  // namespace uafd
