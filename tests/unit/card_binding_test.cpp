// SPDX-License-Identifier: Apache-2.0
#include "daemon/card_binding.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"

namespace uafd {
namespace {

using fake_log::kDaemonLog;
using fake_log::Line;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kDriver[] = "Vexa_Gadget";

class CardSearchTest : public fake_sys::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(0, fake_alsa::controlsOpen());
        EXPECT_THAT(fake_log::lines(), IsEmpty());
        fake_sys::Test::TearDown();
    }
    // Buffers the output as for a file or a pipe, wherever the tests print to.
    static void SetUpTestSuite() { setvbuf(stdout, nullptr, _IOFBF, BUFSIZ); }

    // Returns the search's result; its output goes to `printed` and must be flushed at the end.
    int search(int card = -1) {
        testing::internal::CaptureStdout();
        const int found = drvCodecCardSearch(kDriver, card);
        struct stat file {};
        fstat(STDOUT_FILENO, &file);
        printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed.size(), static_cast<size_t>(file.st_size)) << "is kept back: " << printed;
        return found;
    }

    std::string printed;
};

TEST_F(CardSearchTest, FindsTheCardByItsDriver) {
    fake_alsa::setCards({{0, "rockchip"}, {1, kDriver}});
    EXPECT_EQ(1, search());
    EXPECT_EQ("", printed);
    EXPECT_THAT(
        fake_alsa::calls(),
        ElementsAre("snd_card_next(-1)", "snd_ctl_open(hw:0, 0)", "snd_ctl_card_info(hw:0, zeroed)",
                    "snd_ctl_close(hw:0)", "snd_ctl_card_info_get_driver(rockchip)",
                    "snd_card_next(0)", "snd_ctl_open(hw:1, 0)", "snd_ctl_card_info(hw:1, dirty)",
                    "snd_ctl_close(hw:1)", "snd_ctl_card_info_get_driver(Vexa_Gadget)"));
}

TEST_F(CardSearchTest, LowestOfSeveralCardsWins) {
    fake_alsa::setCards({{0, "rockchip"}, {2, kDriver}, {5, kDriver}});
    EXPECT_EQ(2, search());
}

TEST_F(CardSearchTest, BeginsAfterTheGivenCard) {
    fake_alsa::setCards({{0, "rockchip"}, {2, kDriver}, {5, kDriver}});
    EXPECT_EQ(5, search(2));
    EXPECT_EQ(-1, search(5));
}

TEST_F(CardSearchTest, LongerDriverNameMatchesAndShorterDoesNot) {
    fake_alsa::setCards({{0, "Vexa_Gadg"}, {1, "Vexa_Gadge"}, {2, "Vexa_Gadget2 (UAC)"}});
    EXPECT_EQ(2, search());
    fake_alsa::setCards({{0, "Vexa_Gadg"}, {1, "vexa_gadget"}, {2, "My Vexa_Gadget"}});
    EXPECT_EQ(-1, search());
}

TEST_F(CardSearchTest, NoCardIsNoLine) {
    EXPECT_EQ(-1, search());
    EXPECT_EQ("", printed);
    EXPECT_THAT(fake_alsa::calls(), ElementsAre("snd_card_next(-1)"));
}

TEST_F(CardSearchTest, NoMatchIsNoLine) {
    fake_alsa::setCards({{0, "rockchip"}, {1, "other"}});
    EXPECT_EQ(-1, search());
    EXPECT_EQ("", printed);
}

TEST_F(CardSearchTest, CardThatDoesNotOpenIsPrintedAndPassedOver) {
    fake_alsa::setCards({{0, kDriver, -EACCES}, {1, kDriver}});
    EXPECT_EQ(1, search());
    EXPECT_EQ("control open (0): Permission denied\n", printed);
    EXPECT_EQ(1, fake_alsa::count("snd_ctl_card_info"));
}

TEST_F(CardSearchTest, CardThatDoesNotAnswerIsPrintedClosedAndPassedOver) {
    fake_alsa::setCards({{0, kDriver, 0, -EIO}, {1, kDriver}});
    EXPECT_EQ(1, search());
    EXPECT_EQ("control hardware info (0): Input/output error\n", printed);
    EXPECT_EQ(2, fake_alsa::count("snd_ctl_close"));
}

TEST_F(CardSearchTest, LastCardThatDoesNotOpenIsNoResult) {
    fake_alsa::setCards({{0, "rockchip"}, {1, kDriver, -EBUSY}});
    EXPECT_EQ(-1, search());
    EXPECT_EQ("control open (1): Device or resource busy\n", printed);
}

TEST_F(CardSearchTest, FailureBeforeTheFirstCardReturnsTheCardAsItStands) {
    fake_alsa::setCards({{4, kDriver}});
    fake_alsa::answerAlways("snd_card_next", -EIO);
    EXPECT_EQ(-1, search());
    EXPECT_EQ("", printed);
    EXPECT_EQ(3, search(3));
    EXPECT_EQ("", printed);
}

TEST_F(CardSearchTest, LaterFailureIsPrintedAndReturnsTheLastCardLookedAt) {
    fake_alsa::setCards({{0, "rockchip"}, {2, "other"}, {3, kDriver}});
    fake_alsa::answerAt("snd_card_next", 3, -EIO);
    EXPECT_EQ(2, search());
    EXPECT_EQ("snd_card_next\n", printed);
}

class UafBindTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().strdup = [this](const char* text) {
            copied.emplace_back(text);
            return fake_sys::real::strdup(text);
        };
        threads.install();
        threads.refuse(EAGAIN);
    }

    FakeThreads threads;
    UafSrc src;
    UafSnk snk;
    std::vector<std::string> copied;  // every name given, in order
};

TEST_F(UafBindTest, BothChannelsGetTheCardAndTheirOwnFifo) {
    fake_alsa::setCards({{0, "rockchip"}, {1, kDriver}});
    EXPECT_EQ(1, uafBind(&src, &snk));
    EXPECT_THAT(copied, ElementsAre("/tmp/usbAudioFifoTx", "hw:1", "/tmp/usbAudioFifoRx", "hw:1"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kDaemonLog.debug("UAC Vexa is enabled, using hw:1\n")));
}

TEST_F(UafBindTest, SourceHasTheTransmitAndSinkTheReceiveFifo) {
    fake_alsa::setCards({{31, kDriver}});
    EXPECT_EQ(31, uafBind(&src, &snk));
    EXPECT_EQ(0, snk.uafStart());
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_open"), ElementsAre("snd_pcm_open(hw:31, CAPTURE, 0)"));

    // The sink's worker opens its FIFO, and ends three passes after the off.
    std::vector<std::string> opened;
    fake_sys::hooks().open = [&](const char* path, int flags) {
        opened.push_back(std::string(path) + (flags == O_WRONLY ? " to write" : " to read"));
        return -1;
    };
    fake_sys::hooks().fopen = [](const char*, const char*) -> FILE* { return nullptr; };
    threads.refuse(0);
    snk.intfUpdate(true);
    snk.intfUpdate(false);
    snk.uafLoop();
    EXPECT_THAT(opened, testing::SizeIs(3));
    EXPECT_THAT(opened, testing::Each("/tmp/usbAudioFifoRx to write"));
}

TEST_F(UafBindTest, FirstCardMayBeTheGadget) {
    fake_alsa::setCards({{0, kDriver}});
    EXPECT_EQ(0, uafBind(&src, &snk));
    EXPECT_THAT(copied, Contains("hw:0").Times(2));
}

TEST_F(UafBindTest, AllOfTheDriversNameCounts) {
    fake_alsa::setCards({{0, "Vexa_Gadge"}, {1, "Vexa_GadgetX"}});
    EXPECT_EQ(1, uafBind(&src, &snk));
}

TEST_F(UafBindTest, NoGadgetCardLeavesTheNames) {
    fake_alsa::setCards({{1, kDriver}});
    EXPECT_EQ(1, uafBind(&src, &snk));
    copied.clear();
    fake_log::clear();
    fake_alsa::setCards({{0, "rockchip"}});
    EXPECT_EQ(-1, uafBind(&src, &snk));
    EXPECT_THAT(copied, IsEmpty());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kDaemonLog.error("Audio gadget driver is not ready.\n")));
    EXPECT_EQ(0, src.intfUpdate(false));
    EXPECT_EQ(0, snk.intfUpdate(false));
}

TEST_F(UafBindTest, NoCardAtAllLeavesTheChannelsWithoutNames) {
    EXPECT_EQ(-1, uafBind(&src, &snk));
    EXPECT_EQ(-1, src.intfUpdate(false));
    EXPECT_EQ(-1, snk.intfUpdate(false));
}

}  // namespace
}  // namespace uafd
