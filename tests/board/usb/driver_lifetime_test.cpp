// SPDX-License-Identifier: Apache-2.0
// The gadget driver: what it refuses, and that files of its card and of its control device outlive
// the gadget, but not the module.
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"
#include "board/kit/usb/kernel_gadget.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;

constexpr char kGadget[] = "/sys/kernel/config/usb_gadget/board";
constexpr int kCycles = 20;

// 0, or the errno that refused it.
int unload() {
    return unloadModule("usb_f_vexa");
}

int write(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const ssize_t written = ::write(fd, text.data(), text.size());
    const int error = written < 0 ? errno : 0;
    close(fd);
    return error;
}

class Lifetime : public DriverCase {};

TEST_F(Lifetime, AllowsOneInstanceLinkedOnce) {
    make();
    const std::string second = std::string(kGadget) + "/functions/vexa.1";
    EXPECT_EQ(mkdir(second.c_str(), 0755), -1);
    EXPECT_EQ(errno, EBUSY);
    const std::string other = std::string(kGadget) + "/configs/c.2";
    ASSERT_EQ(mkdir(other.c_str(), 0755), 0);
    EXPECT_EQ(symlink(kFunction, (other + "/function").c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    rmdir(other.c_str());
    gadget.reset();
    make();  // the one before is gone
}

TEST_F(Lifetime, FixesItsAttributesWhileItIsLinked) {
    make();
    for (const char* name :
         {"c_volume_min", "p_volume_max", "settle_ms", "c_sync", "card_id", "function_name"}) {
        const std::string path = std::string(kFunction) + "/" + name;
        std::string value = contents(path);
        EXPECT_EQ(write(path, value), EBUSY) << name;
        EXPECT_EQ(contents(path), value) << name;
    }
}

TEST_F(Lifetime, TakesNoAttributeOutOfItsRange) {
    const std::string folder = std::string(kGadget) + "/functions/vexa.0";
    ASSERT_EQ(mkdir(kGadget, 0755), 0);
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    const struct {
        const char* name;
        std::string value;
        int error;
    } rows[] = {
        {"c_volume_min", "-32768", ERANGE},
        {"c_volume_max", "32768", ERANGE},
        {"c_volume_res", "0", ERANGE},
        {"p_volume_res", "-1", ERANGE},
        {"p_volume_min", "loud", EINVAL},
        {"c_terminal_type", "0x10000", ERANGE},
        {"req_number", "1", ERANGE},
        {"req_number", "17", ERANGE},
        {"settle_ms", "1001", ERANGE},
        {"settle_ms", "-1", ERANGE},
        {"card_index", "-2", ERANGE},
        {"card_index", "1000", ERANGE},
        {"c_sync", "sync", EINVAL},
        {"c_ot_name", std::string(64, 'x'), EOVERFLOW},
        {"card_id", std::string(16, 'x'), EOVERFLOW},
        {"c_volume_min", "-0x100\n", 0},
        {"p_terminal_type", "0x205\n", 0},
        {"c_sync", "adaptive\n", 0},
        {"c_ot_name", std::string(63, 'x'), 0},
        {"req_number", "16", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(write(folder + "/" + row.name, row.value), row.error)
            << row.name << ' ' << row.value;
    }
    EXPECT_EQ(contents(folder + "/c_volume_min"), "-256\n");
    EXPECT_EQ(contents(folder + "/p_terminal_type"), "0x0205\n");
    EXPECT_EQ(contents(folder + "/c_sync"), "adaptive\n");
    EXPECT_EQ(contents(folder + "/c_ot_name"), std::string(63, 'x') + "\n");
    rmdir(folder.c_str());
    rmdir(kGadget);
}

TEST_F(Lifetime, RefusesToBindWithARangeUpsideDown) {
    make({{"p_volume_min", "0"}});
    EXPECT_NE(write(std::string(kGadget) + "/UDC", kUdc), 0);
    EXPECT_EQ(contents(std::string(kGadget) + "/UDC"), "\n");
    EXPECT_TRUE(control->records().empty());
}

TEST_F(Lifetime, LetsFilesOutliveTheGadgetButNotTheModule) {
    enumerate();
    auto app = std::make_unique<PcmRecorder>(kDriverPcm);
    auto appMic = std::make_unique<PcmPlayer>(kDriverPcm, noise);
    ASSERT_EQ(unload(), EWOULDBLOCK);
    control->records();
    gadget->unbind();
    ASSERT_TRUE(waitFor([&] { return app->isOver() && appMic->isOver(); }));
    EXPECT_THAT(control->records(), ElementsAre(Record(1, 0)));
    EXPECT_FALSE(exists("/proc/asound/Gadget"));
    // The next card is there at once, while the files of the last are still open.
    bind();
    {
        PcmRecorder next(kDriverPcm);
        PcmPlayer hostSpeaker(kHostPcm, noise);
        EXPECT_TRUE(waitFor([&] { return next.frames() > 4800; }));
        app.reset();
        const int64_t frames = next.frames();
        EXPECT_TRUE(waitFor([&] { return next.frames() > frames + 4800; }));
    }
    gadget.reset();
    control.reset();
    EXPECT_EQ(unload(), EWOULDBLOCK);  // one file of the first card is open
    appMic.reset();
    control.emplace();
    EXPECT_EQ(unload(), EWOULDBLOCK);
    control.reset();
    EXPECT_EQ(unload(), 0);
    EXPECT_FALSE(exists("/sys/class/android_usb"));
    enumerate();
    EXPECT_TRUE(exists("/sys/class/android_usb"));
}

TEST_F(Lifetime, ComesAndGoesInMidStream) {
    make();
    for (int i = 0; i < kCycles; ++i) {
        bind();
        PcmRecorder app(kDriverPcm);
        PcmPlayer appMic(kDriverPcm, noise);
        PcmRecorder hostMic(kHostPcm);
        PcmPlayer hostSpeaker(kHostPcm, noise);
        ASSERT_TRUE(waitFor([&] { return app.frames() > 4800 && hostMic.frames() > 4800; })) << i;
        gadget->unbind();
        ASSERT_TRUE(UsbHost::waitForCard(false)) << i;
    }
}

}  // namespace
}  // namespace uafd
