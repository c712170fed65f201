// SPDX-License-Identifier: Apache-2.0
// The gadget driver: what it answers on the control pipe. There are a volume and a mute each way;
// whatever else is asked is stalled, and changes nothing.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/random.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint8_t kGet = 0xa1;  // class, interface
constexpr uint8_t kSet = 0x21;
constexpr uint8_t kGetEndpoint = 0xa2;
constexpr uint8_t kSetEndpoint = 0x22;
enum Request : uint8_t {
    kSetCur = 1,
    kSetMin,
    kSetMax,
    kSetRes,
    kGetCur = 0x81,
    kGetMin,
    kGetMax,
    kGetRes,
    kGetMem,
    kGetStat = 0xff
};
constexpr uint16_t kMute = 0x0100;  // selectors, on the master channel
constexpr uint16_t kVolume = 0x0200;
constexpr uint16_t kSpeakerUnit = 0x0200;  // of interface 0
constexpr uint16_t kMicUnit = 0x0500;
constexpr int kStall = -EPIPE;

// What there is not, and what does not go with it.
constexpr struct {
    uint8_t type;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    size_t length;
} kAbsent[] = {
    {kGet, kGetCur, kVolume, kSpeakerUnit, 0},  // no length
    {kSet, kSetCur, kVolume, kSpeakerUnit, 0},  // wrong lengths
    {kSet, kSetCur, kVolume, kSpeakerUnit, 1},
    {kSet, kSetCur, kVolume, kSpeakerUnit, 3},
    {kSet, kSetCur, kVolume, kSpeakerUnit, 512},
    {kSet, kSetCur, kMute, kMicUnit, 0},
    {kSet, kSetCur, kMute, kMicUnit, 2},
    {kGet, kGetCur, kVolume, 0x0000, 2},  // no unit
    {kGet, kGetCur, kVolume, 0x0100, 2},  // a terminal
    {kGet, kGetCur, kVolume, 0x0300, 2},
    {kGet, kGetCur, kVolume, 0x0700, 2},  // absent units
    {kSet, kSetCur, kVolume, 0x0700, 2},
    {kGet, kGetCur, kVolume, 0xff00, 2},
    {kGet, kGetCur, kVolume, 0x0201, 2},  // on other interfaces
    {kSet, kSetCur, kVolume, 0x0502, 2},
    {kGet, kGetCur, kVolume + 1, kSpeakerUnit, 2},  // the first channel, every channel
    {kSet, kSetCur, kVolume + 1, kSpeakerUnit, 2},
    {kGet, kGetCur, kVolume + 0xff, kSpeakerUnit, 2},
    {kGet, kGetCur, 0x0000, kSpeakerUnit, 2},  // selectors: none, bass, every one
    {kGet, kGetCur, 0x0300, kSpeakerUnit, 1},
    {kGet, kGetCur, 0xff00, kSpeakerUnit, 2},
    {kGet, kGetMin, kMute, kSpeakerUnit, 1},  // a mute has no range
    {kGet, kGetRes, kMute, kSpeakerUnit, 1},
    {kSet, kSetMin, kVolume, kSpeakerUnit, 2},  // a range cannot be set
    {kSet, kSetMax, kVolume, kSpeakerUnit, 2},
    {kSet, kSetRes, kVolume, kMicUnit, 2},
    {kGet, kGetMem, kVolume, kMicUnit, 2},
    {kGet, 0x00, kVolume, kMicUnit, 2},
    {kGet, kSetCur, kVolume, kSpeakerUnit, 2},  // against the direction
    {kSet, kGetCur, kVolume, kSpeakerUnit, 2},
    {kGet, kGetStat, 0, 0x0700, 2},              // of an absent unit
    {0xa0, kGetCur, kVolume, kSpeakerUnit, 2},   // to the device
    {0xc1, kGetCur, kVolume, kSpeakerUnit, 2},   // of a vendor
    {kGetEndpoint, kGetCur, 0x0100, 0x0001, 3},  // sampling frequency
    {kGetEndpoint, kGetMin, 0x0100, 0x0082, 3},
};

std::string word(int value) {
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}

class Requests : public DriverCase {
  protected:
    void SetUp() override {
        enumerate({{"c_volume_min", "-12800"}, {"c_volume_max", "512"}, {"c_volume_res", "128"}});
        takeFromHost();
        device = std::make_unique<UsbDevice>();
        // The driver keeps what the last case has set.
        set(kSetCur, kVolume, kSpeakerUnit, word(0));
        set(kSetCur, kVolume, kMicUnit, word(0));
        set(kSetCur, kMute, kSpeakerUnit, std::string(1, 0));
        set(kSetCur, kMute, kMicUnit, std::string(1, 0));
        control->records();
    }
    // What came back, or the error as text.
    std::string get(uint8_t request, uint16_t value, uint16_t index, size_t length) {
        std::string data(length, '\xee');
        const int got = device->control(kGet, request, value, index, &data);
        return got < 0 ? std::to_string(got) : data.substr(0, static_cast<size_t>(got));
    }
    int set(uint8_t request, uint16_t value, uint16_t index, std::string data) {
        return device->control(kSet, request, value, index, &data);
    }

    std::unique_ptr<UsbDevice> device;
};

TEST_F(Requests, TellVolumesAndMutes) {
    EXPECT_EQ(get(kGetMin, kVolume, kSpeakerUnit, 2), word(-12800));
    EXPECT_EQ(get(kGetMax, kVolume, kSpeakerUnit, 2), word(512));
    EXPECT_EQ(get(kGetRes, kVolume, kSpeakerUnit, 2), word(128));
    EXPECT_EQ(get(kGetMin, kVolume, kMicUnit, 2), word(-25600));
    EXPECT_EQ(get(kGetMax, kVolume, kMicUnit, 2), word(0));
    EXPECT_EQ(get(kGetRes, kVolume, kMicUnit, 2), word(256));
    EXPECT_EQ(set(kSetCur, kVolume, kSpeakerUnit, word(-300)), 2);
    EXPECT_EQ(set(kSetCur, kMute, kMicUnit, std::string(1, 1)), 1);
    EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 2), word(-300));
    EXPECT_EQ(get(kGetCur, kMute, kMicUnit, 1), std::string(1, 1));
    EXPECT_EQ(get(kGetCur, kMute, kSpeakerUnit, 1), std::string(1, 0));
    EXPECT_THAT(control->records(), ElementsAre(Record{4, 0xfed4}, Record{7, 1}));
}

// The class: a longer answer than what there is ends short, a shorter one has its beginning.
TEST_F(Requests, AnswerInTheLengthThatIsAskedFor) {
    set(kSetCur, kVolume, kSpeakerUnit, word(-300));
    EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 64), word(-300));
    EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 1), word(-300).substr(0, 1));
    EXPECT_EQ(get(kGetCur, kMute, kSpeakerUnit, 512), std::string(1, 0));
    EXPECT_EQ(get(kGetStat, 0, 0, 2), "");
}

TEST_F(Requests, KeepAVolumeWithinItsRange) {
    const std::pair<int, int> rows[] = {
        {600, 512}, {32767, 512}, {-12801, -12800}, {-32768, -12800}};
    for (const auto& [asked, kept] : rows) {
        EXPECT_EQ(set(kSetCur, kVolume, kSpeakerUnit, word(asked)), 2);
        EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 2), word(kept)) << asked;
        EXPECT_THAT(control->records(), ElementsAre(Record{4, static_cast<uint16_t>(kept)}))
            << asked;
    }
    int16_t low = -20000;
    EXPECT_EQ(control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &low), 0);
    EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 2), word(-12800));
}

TEST_F(Requests, StallWhatThereIsNot) {
    for (const auto& row : kAbsent) {
        std::string data(row.length, '\x01');
        EXPECT_EQ(device->control(row.type, row.request, row.value, row.index, &data), kStall)
            << std::hex << int{row.type} << ' ' << int{row.request} << ' ' << row.value << ' '
            << row.index << ' ' << row.length;
    }
    EXPECT_THAT(control->records(), IsEmpty());
    EXPECT_EQ(get(kGetCur, kVolume, kSpeakerUnit, 2), word(0));
    EXPECT_EQ(get(kGetCur, kMute, kMicUnit, 1), std::string(1, 0));
}

// Its one frequency is no control: it cannot even be set to what it is.
TEST_F(Requests, StallEverySamplingFrequency) {
    for (const int rate : {48000, 44100, 96000, 0}) {
        std::string data{static_cast<char>(rate), static_cast<char>(rate >> 8),
                         static_cast<char>(rate >> 16)};
        for (const uint8_t endpoint : {uint8_t{0x01}, uint8_t{0x82}}) {
            EXPECT_EQ(device->control(kSetEndpoint, kSetCur, 0x0100, endpoint, &data), kStall)
                << rate;
        }
    }
}

TEST_F(Requests, StallAlternateSettingsThatThereAreNot) {
    constexpr uint8_t kSetInterface = 11;
    const struct {
        uint16_t interface;
        uint16_t setting;
        int result;
    } rows[] = {{0, 0, 0},           {0, 1, kStall}, {1, 0, 0},      {1, 2, kStall},
                {1, 0xffff, kStall}, {2, 0, 0},      {2, 2, kStall}, {2, 255, kStall}};
    for (const auto& row : rows) {
        std::string none;
        EXPECT_EQ(device->control(0x01, kSetInterface, row.setting, row.interface, &none),
                  row.result)
            << row.interface << ' ' << row.setting;
    }
    EXPECT_THAT(control->records(), IsEmpty());
}

// What a device that does as it should has for an answer to a request of the class.
class Model {
  public:
    // A GET's bytes, a SET's own, or nothing where it stalls.
    bool answer(uint8_t type, uint8_t request, uint16_t value, uint16_t index, std::string* data) {
        const auto entity = static_cast<uint8_t>(index >> 8);
        const auto selector = static_cast<uint8_t>(value >> 8);
        if ((type != kGet && type != kSet) || (index & 0xff) != 0) {
            return false;
        }
        if (type == kGet && request == kGetStat && entity <= 6) {
            data->clear();
            return true;
        }
        if ((entity != 2 && entity != 5) || (value & 0xff) != 0 ||
            (selector != 1 && selector != 2)) {
            return false;
        }
        Direction& direction = directions[entity == 2 ? 0 : 1];
        return type == kGet ? get(direction, request, selector, data)
                            : set(&direction, request, selector, *data);
    }
    // What the daemon was told since the last call.
    std::vector<Record> takeRecords() { return std::exchange(told, {}); }

  private:
    struct Direction {
        uint32_t number;
        int min;
        int max;
        int res;
        int volume;
        int mute;
    };

    static bool get(const Direction& direction, uint8_t request, uint8_t selector,
                    std::string* data) {
        std::string answer;
        if (selector == 1) {
            if (request != kGetCur) {
                return false;
            }
            answer = std::string(1, static_cast<char>(direction.mute));
        } else {
            switch (request) {
                case kGetCur:
                    answer = word(direction.volume);
                    break;
                case kGetMin:
                    answer = word(direction.min);
                    break;
                case kGetMax:
                    answer = word(direction.max);
                    break;
                case kGetRes:
                    answer = word(direction.res);
                    break;
                default:
                    return false;
            }
        }
        if (data->empty()) {
            return false;
        }
        *data = answer.substr(0, data->size());
        return true;
    }
    bool set(Direction* direction, uint8_t request, uint8_t selector, const std::string& data) {
        if (request != kSetCur || data.size() != selector) {
            return false;
        }
        if (selector == 1) {
            direction->mute = data[0] != 0;
            told.emplace_back(6 + direction->number, direction->mute);
        } else {
            const auto volume = static_cast<int16_t>(static_cast<uint8_t>(data[0]) | data[1] << 8);
            direction->volume = std::clamp<int>(volume, direction->min, direction->max);
            told.emplace_back(4 + direction->number, static_cast<uint16_t>(direction->volume));
        }
        return true;
    }

    std::array<Direction, 2> directions{{{0, -12800, 512, 128, 0, 0}, {1, -25600, 0, 256, 0, 0}}};
    std::vector<Record> told;
};

// As many as UAFD_REQUESTS says.
TEST_F(Requests, AreAnsweredAsByTheClassWhateverComes) {
    const char* const wanted = getenv("UAFD_REQUESTS");
    const int count = wanted == nullptr ? 4000 : atoi(wanted);
    constexpr int kReadEvery = 1000;  // requests; the driver's queue has room for their records
    constexpr uint8_t kTypes[] = {kGet, kSet, kGet, kSet, kGet, kSet, kGet, kSet, 0xa0, 0x41};
    constexpr uint8_t kRequests[] = {kSetCur, kSetCur, kSetCur, kGetCur, kGetCur, kGetCur,
                                     kGetMin, kGetMax, kGetRes, kSetMin, kGetMem, kGetStat};
    constexpr uint8_t kSelectors[] = {1, 2, 1, 2, 0, 3};
    constexpr uint8_t kEntities[] = {2, 5, 2, 5, 2, 5, 0, 1, 3, 4, 6, 7};
    constexpr uint8_t kLengths[] = {1, 2, 1, 2, 0, 3, 64};
    Random random(1);
    Model model;
    int answered = 0;
    const auto pick = [&random](const auto& values) {
        return values[static_cast<size_t>(random.below(std::size(values)))];
    };
    const auto byte = [&random] { return static_cast<uint8_t>(random.below(256)); };
    for (int i = 1; i <= count; ++i) {
        const bool wild = random.below(8) == 0;
        const uint8_t type = pick(kTypes);
        const uint8_t request = wild ? byte() : pick(kRequests);
        const auto selector = wild ? byte() : pick(kSelectors);
        const auto channel = static_cast<uint8_t>(random.below(16) == 0 ? byte() : 0);
        const auto entity = wild ? byte() : pick(kEntities);
        const auto value = static_cast<uint16_t>(selector << 8 | channel);
        const auto index =
            static_cast<uint16_t>(entity << 8 | (random.below(8) == 0 ? random.below(3) : 0));
        std::string data(pick(kLengths), '\0');
        std::generate(data.begin(), data.end(), [&] { return static_cast<char>(byte()); });
        std::string expected = data;
        const bool good = model.answer(type, request, value, index, &expected);
        const int got = device->control(type, request, value, index, &data);
        ASSERT_EQ(got, good ? static_cast<int>(expected.size()) : kStall)
            << i << std::hex << ": " << int{type} << ' ' << int{request} << ' ' << value << ' '
            << index;
        ASSERT_TRUE(!good || data.substr(0, expected.size()) == expected) << i;
        answered += good;
        if (i % kReadEvery == 0 || i == count) {
            ASSERT_EQ(control->records(), model.takeRecords()) << i;
        }
    }
    EXPECT_GT(answered, count / 20);
}

}  // namespace
}  // namespace uafd
