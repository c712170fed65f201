// SPDX-License-Identifier: Apache-2.0
// The packages of driver, gadget, daemon and tool on a board with systemd and a USB host:
// installed, they stream over USB after "uafd-gadget up" and nothing else. The cases are one story,
// in this order; each leaves the gadget down.
#include <map>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include "board/kit/service.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using board::contents;
using board::outputOf;
using board::waitFor;
using testing::HasSubstr;

constexpr char kConf[] = "/etc/uafd/gadget.conf";
const std::string kGadgets = "/sys/kernel/config/usb_gadget";
const std::string kGadget = kGadgets + "/uafd";
const std::string kFunction = kGadget + "/functions/vexa.uafd";
const std::string kModules = [] {
    utsname system{};
    uname(&system);
    return std::string("/lib/modules/") + system.release;
}();

// What uafd-gadget has printed, without its line end, and its exit status.
struct Answer {
    int status;
    std::string text;
};

Answer gadget(const std::string& command) {
    ChildProcess process({"/usr/sbin/uafd-gadget", command});
    const int status = process.wait();
    return {status, process.output() + process.errors()};
}

void expectUp() {
    const Answer answer = gadget("up");
    EXPECT_EQ(answer.status, 0) << answer.text;
    EXPECT_EQ(answer.text, "up, on ff300000.usb\n");
}

void expectRefused(const std::string& reason) {
    const Answer answer = gadget("up");
    EXPECT_EQ(answer.status, 1) << answer.text;
    EXPECT_THAT(answer.text, HasSubstr(reason));
    EXPECT_FALSE(board::exists(kGadget)) << "something stays of a failed attempt";
}

void expectDown() {
    const Answer answer = gadget("down");
    EXPECT_EQ(answer.status, 0) << answer.text;
    EXPECT_EQ(answer.text, "");
    EXPECT_FALSE(board::exists(kGadget));
}

void install(const std::string& packages) {
    board::put("/out/dpkg.txt", contents("/out/dpkg.txt") +
                                    outputOf("cd /packages && dpkg -i " + packages + " 2>&1"));
}

// One line of the configuration more, until the end.
class ConfLine {
  public:
    explicit ConfLine(const std::string& line) : before(contents(kConf)) {
        board::put(kConf, before + line + "\n");
    }
    ~ConfLine() { board::put(kConf, before); }
    ConfLine(const ConfLine&) = delete;
    ConfLine& operator=(const ConfLine&) = delete;

  private:
    const std::string before;
};

void becomeAppOfTheGroup() {
    board::joinServiceGroup();
    board::becomeUnprivileged();
}

// The microphone's latency control lengthens and shortens the sound here and there, so not every
// stretch of it is what was played.
bool holdsStretchOf(const board::Samples& played, const board::Samples& recorded) {
    constexpr size_t kPeriodFrames = 240;
    for (size_t at = board::firstSound(recorded); at < recorded.size(); at += kPeriodFrames) {
        if (board::find(recorded, at, played) >= 0) {
            return true;
        }
    }
    return false;
}

TEST(GadgetPackage, TellsThatTheDriverIsMissing) {
    unlink((kModules + "/extra/usb_f_vexa.ko").c_str());  // the other tests'
    outputOf("depmod -a");
    install("uafd-gadget_*.deb");
    EXPECT_EQ(outputOf("systemctl is-enabled uafd-gadget || true"), "disabled");
    expectRefused("the driver usb_f_vexa does not load");
    const Answer status = gadget("status");
    EXPECT_EQ(status.status, 3);
    EXPECT_THAT(status.text, HasSubstr("\nstops at    the driver: nothing has built usb_f_vexa"));
}

TEST(GadgetPackage, BuildsTheDriverWithDkms) {
    install("uafd-gadget-dkms_*.deb");
    EXPECT_THAT(outputOf("dkms status uafd-gadget"), HasSubstr(": installed"));
    EXPECT_EQ(outputOf("modinfo -n usb_f_vexa"), kModules + "/updates/dkms/usb_f_vexa.ko");
    EXPECT_THAT(contents("/out/make.txt"), HasSubstr("-C " + kModules + "/build M=/var/lib/dkms/"));
    EXPECT_THAT(gadget("status").text, HasSubstr("stops at    the driver, which is there"));
}

TEST(GadgetPackage, StreamsOverUsbAfterUp) {
    install("uafd_*.deb uafd-companion_*.deb");
    expectUp();
    ASSERT_TRUE(board::UsbHost::waitForCard());
    EXPECT_EQ(board::UsbHost::attribute("idVendor") + ":" + board::UsbHost::attribute("idProduct"),
              "1d6b:0104");
    EXPECT_EQ(board::UsbHost::attribute("product"), "USB Audio");

    ChildProcess app({"/usr/bin/uafd-companion", "record", "/out/heard.wav", "--seconds", "0.5"},
                     becomeAppOfTheGroup);
    {
        const board::PcmPlayer player(board::kHostPcm, board::noise);
        EXPECT_EQ(app.wait(), 0) << app.errors();
    }
    const board::Samples heard = board::readWav("/out/heard.wav");
    const size_t first = board::firstSound(heard);
    ASSERT_LT(first + board::kRate / 4, heard.size());
    const int64_t from = board::find(heard, first, board::render(board::noise, 0, board::kRate));
    ASSERT_GE(from, 0);
    EXPECT_EQ(board::findGaps(heard, [&](int64_t frame) { return board::noise(from + frame); }),
              std::vector<board::Gap>());

    // What the host plays comes back to it.
    ChildProcess loop({"/usr/bin/uafd-companion", "loop"}, becomeAppOfTheGroup);
    const board::PcmPlayer player(board::kHostPcm, board::noise);
    board::PcmRecorder recorder(board::kHostPcm);
    EXPECT_TRUE(waitFor([&] {
        const board::Samples recorded = recorder.recording();
        return board::firstSound(recorded) + board::kRate / 5 < recorded.size();
    }));
    recorder.stop();
    EXPECT_TRUE(
        holdsStretchOf(board::render(board::noise, 0, player.frames()), recorder.recording()));
}

TEST(GadgetPackage, ShowsAGadgetThatIsUpAndLeavesItAlone) {
    const Answer status = gadget("status");
    EXPECT_EQ(status.status, 0);
    EXPECT_THAT(status.text, HasSubstr("controller  ff300000.usb\n"));
    EXPECT_THAT(status.text, HasSubstr("host        configured, high-speed\n"));
    EXPECT_THAT(status.text, testing::ContainsRegex("card        [0-9] .Gadget.*Vexa_Gadget\n$"));
    EXPECT_THAT(status.text, testing::Not(HasSubstr("stops at")));
    const std::string before = board::UsbHost::attribute("devnum");
    EXPECT_EQ(gadget("up").text, "up already, on ff300000.usb\n");
    EXPECT_EQ(board::UsbHost::attribute("devnum"), before) << "the host has lost it for a moment";

    board::Wire().unplug();
    EXPECT_TRUE(waitFor([] { return board::KernelGadget::state() == "not attached"; }));
    EXPECT_THAT(gadget("status").text, HasSubstr("\nstops at    the cable: "));
    board::Wire().plug();
    expectDown();
    EXPECT_EQ(gadget("down").status, 0);
    EXPECT_TRUE(board::UsbHost::waitForCard(false));
    EXPECT_THAT(gadget("status").text, HasSubstr("\nstops at    the gadget: uafd-gadget up\n"));
}

TEST(GadgetPackage, CleansUpWhateverIsHalfDone) {
    const std::string steps[] = {
        "mkdir " + kGadget,
        "mkdir " + kGadget + "/strings/0x409 " + kFunction,
        "mkdir " + kGadget + "/configs/c.1 " + kGadget + "/configs/c.1/strings/0x409",
        "ln -s " + kFunction + " " + kGadget + "/configs/c.1/",
    };
    for (size_t done = 1; done <= std::size(steps); ++done) {
        for (const bool up : {false, true}) {
            for (size_t i = 0; i < done; ++i) {
                outputOf(steps[i]);
            }
            if (up) {
                expectUp();
            }
            expectDown();
        }
    }
}

TEST(GadgetPackage, LeavesAControllerToAnotherGadget) {
    board::KernelGadget other("uac2");
    other.bind();
    expectRefused("the controller ff300000.usb has another gadget: board");
    EXPECT_EQ(contents(kGadgets + "/board/UDC"), "ff300000.usb\n");
    EXPECT_THAT(gadget("status").text,
                HasSubstr("\nstops at    the controller, which the gadget "));
}

TEST(GadgetPackage, RefusesAnInstanceOfTheDriverElsewhere) {
    const board::KernelGadget other("vexa");
    expectRefused("another gadget uses the driver, which has one card: " + kGadgets + "/board/");
}

TEST(GadgetPackage, NamesTheLineThatIsWrong) {
    const std::map<std::string, std::string> wrong = {
        {"idVendor=0x1234", ": not NAME = VALUE"},
        {"c_volume = 1", ": there is no setting c_volume"},
        {"settle_ms = 1001", ": the kernel refuses settle_ms = 1001"},
        {"udc = nowhere.usb", "there is no controller nowhere.usb"},
    };
    for (const auto& [line, reason] : wrong) {
        const ConfLine more(line);
        expectRefused(reason);
    }
}

TEST(GadgetPackage, TakesTheNamedOneOfSeveralControllers) {
    outputOf("modprobe dummy_hcd");
    expectRefused(
        "there are several USB device controllers; name one as udc in /etc/uafd/gadget.conf: ");
    {
        const ConfLine more("udc = ff300000.usb");
        expectUp();
        expectDown();
    }
    outputOf("rmmod dummy_hcd");
}

TEST(GadgetPackage, HasAServiceThatGoesWithThePackage) {
    outputOf("systemctl start uafd-gadget");
    EXPECT_EQ(contents(kGadget + "/UDC"), "ff300000.usb\n");
    outputOf("systemctl stop uafd-gadget");
    EXPECT_FALSE(board::exists(kGadget));
    EXPECT_EQ(gadget("up").status, 0);
    outputOf("dpkg -P uafd-gadget uafd-gadget-dkms 2>&1");
    EXPECT_FALSE(board::exists(kGadget));
    EXPECT_FALSE(board::exists(kConf));
    EXPECT_FALSE(board::exists(kModules + "/updates/dkms/usb_f_vexa.ko"));
}

}  // namespace
}  // namespace uafd
