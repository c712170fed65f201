// SPDX-License-Identifier: Apache-2.0
#include "tests/unit/companion_tool.h"

#include <fstream>
#include <numeric>
#include <sstream>
#include <unistd.h>

namespace uafd {

std::string contentsOf(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

ChildProcess& ToolTest::start(std::vector<std::string> words,
                              const std::function<void()>& prepare) {
    words.insert(words.begin(), TOOL_PROGRAM);
    words.insert(words.end(), {"--directory", folder.path()});
    return tool.emplace(words, prepare);
}

testing::AssertionResult ToolTest::waitForFile(const std::string& name) const {
    return eventually([&] { return access(daemon.path(name).c_str(), F_OK) == 0; });
}

void ToolTest::writeWav(const std::string& path, const Samples& samples, int channels, int rate,
                        int format) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* const file = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_command(file, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
    sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
}

Samples ToolTest::readWav(const std::string& path, SF_INFO* info) {
    SNDFILE* const file = sf_open(path.c_str(), SFM_READ, info);
    if (file == nullptr) {
        return {};
    }
    Samples samples(static_cast<size_t>(info->frames * info->channels));
    sf_read_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
    return samples;
}

Samples ToolTest::ramp(size_t count) {
    Samples samples(count);
    std::iota(samples.begin(), samples.end(), int16_t{1});
    return samples;
}

Samples ToolTest::recordUntil(const std::function<bool(const Samples&)>& condition) {
    Samples left;
    while (!condition(left)) {
        const Samples block = daemon.record();
        if (block.empty()) {
            break;
        }
        for (size_t i = 0; i < block.size(); i += 2) {
            EXPECT_EQ(block[i], block[i + 1]);
            left.push_back(block[i]);
        }
    }
    return left;
}

}  // namespace uafd
