// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "companion/bridge/alsa_card.h"

namespace uafd {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(float sample, snd_pcm_format_t format, unsigned channels = 1) {
    Bytes bytes(16, 0xEE);
    toCard(&sample, 1, format, channels, bytes.data());
    bytes.resize(static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8 * channels);
    return bytes;
}

TEST(SampleFormat, WritesWhatAlsaDefines) {
    EXPECT_EQ(bytesOf(0.5F, SND_PCM_FORMAT_S16_LE), (Bytes{0x00, 0x40}));
    EXPECT_EQ(bytesOf(-0.5F, SND_PCM_FORMAT_S16_LE), (Bytes{0x00, 0xC0}));
    EXPECT_EQ(bytesOf(-0.5F, SND_PCM_FORMAT_S32_LE), (Bytes{0x00, 0x00, 0x00, 0xC0}));
    EXPECT_EQ(bytesOf(0.5F, SND_PCM_FORMAT_S24_LE), (Bytes{0x00, 0x00, 0x40, 0x00}));
    EXPECT_EQ(bytesOf(-0.5F, SND_PCM_FORMAT_S24_3LE), (Bytes{0x00, 0x00, 0xC0}));
    EXPECT_EQ(bytesOf(-0.5F, SND_PCM_FORMAT_FLOAT_LE), (Bytes{0x00, 0x00, 0x00, 0xBF}));
    EXPECT_EQ(bytesOf(0.5F, SND_PCM_FORMAT_S16_LE, 3), (Bytes{0x00, 0x40, 0x00, 0x40, 0x00, 0x40}));
}

TEST(SampleFormat, LimitsWhatIsTooLoud) {
    EXPECT_EQ(bytesOf(1.5F, SND_PCM_FORMAT_S16_LE), (Bytes{0xFF, 0x7F}));
    EXPECT_EQ(bytesOf(-1.5F, SND_PCM_FORMAT_S16_LE), (Bytes{0x00, 0x80}));
    EXPECT_EQ(bytesOf(1.5F, SND_PCM_FORMAT_S32_LE), (Bytes{0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(bytesOf(1.5F, SND_PCM_FORMAT_S24_3LE), (Bytes{0xFF, 0xFF, 0x7F}));
    EXPECT_EQ(bytesOf(1.5F, SND_PCM_FORMAT_FLOAT_LE), (Bytes{0x00, 0x00, 0x80, 0x3F}));
}

TEST(SampleFormat, ReadsTheFirstChannelOfWhatItWrote) {
    const std::vector<float> sound = {0, 0.25F, -0.25F, 0.999F, -1, 1.0F / 32768};
    for (const snd_pcm_format_t format : knownFormats()) {
        for (const unsigned channels : {1U, 2U, 8U}) {
            Bytes bytes(sound.size() * 4 * channels);
            toCard(sound.data(), sound.size(), format, channels, bytes.data());
            // Another channel has something else, and S24_LE something above its 24 bits.
            const size_t size = static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8;
            if (channels > 1) {
                bytes[size] = static_cast<unsigned char>(bytes[size] ^ 0xFF);
            }
            if (format == SND_PCM_FORMAT_S24_LE) {
                bytes[3] = 0x55;
            }
            std::vector<float> read(sound.size());
            fromCard(bytes.data(), sound.size(), format, channels, read.data());
            for (size_t i = 0; i < sound.size(); ++i) {
                EXPECT_NEAR(read[i], sound[i], 1.0 / 32768)
                    << snd_pcm_format_name(format) << ' ' << channels << ' ' << i;
            }
        }
    }
}

}  // namespace
}  // namespace uafd
