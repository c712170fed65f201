// SPDX-License-Identifier: Apache-2.0
#include "board/kit/sound.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "board/kit/files.h"

namespace board {
namespace {

constexpr double kSineAmplitude = 8000;
constexpr size_t kProbeFrames = 48;  // enough to name a place in noise or speech

template <typename Number>
Number take(const std::string& bytes, size_t at) {
    Number number{};
    if (at + sizeof number > bytes.size()) {
        throw std::runtime_error("WAV file ends early");
    }
    memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

template <typename Number>
void append(std::string* bytes, Number number) {
    bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

// The position of the chunk's data.
size_t findChunk(const std::string& bytes, const char* name) {
    for (size_t at = 12; at + 8 <= bytes.size();
         at += 8 + take<uint32_t>(bytes, at + 4) + (take<uint32_t>(bytes, at + 4) & 1)) {
        if (bytes.compare(at, 4, name) == 0) {
            return at + 8;
        }
    }
    throw std::runtime_error(std::string("WAV file without a chunk ") + name);
}

}  // namespace

int16_t silence(int64_t) {
    return 0;
}

int16_t ramp(int64_t frame) {
    return static_cast<int16_t>(static_cast<uint16_t>(frame));
}

int16_t noise(int64_t frame) {
    uint64_t x = static_cast<uint64_t>(frame) + 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return static_cast<int16_t>(static_cast<uint16_t>(x >> 40));
}

int16_t murmur(int64_t frame) {
    const int value = noise(frame) / 4096;
    return static_cast<int16_t>(value < 0 ? value : value + 1);
}

Voice sine(double hz) {
    const double step = 2 * M_PI * hz / kRate;
    return [step](int64_t frame) {
        return static_cast<int16_t>(
            std::lround(kSineAmplitude * std::sin(step * static_cast<double>(frame))));
    };
}

Voice speech(Samples samples, int64_t from) {
    return [samples = std::move(samples), from](int64_t frame) {
        const int64_t index = frame - from;
        const bool speaks = index >= 0 && index < static_cast<int64_t>(samples.size());
        return speaks ? samples[static_cast<size_t>(index)] : murmur(frame);
    };
}

Samples render(const Voice& voice, int64_t from, int64_t frames) {
    Samples samples(static_cast<size_t>(frames));
    // Most voices are plain functions. Called without the wrapper, which the tests' unoptimised
    // code brings along, they take a tenth of the instructions.
    if (const auto* const function = voice.target<int16_t (*)(int64_t)>()) {
        std::generate(samples.begin(), samples.end(), [&] { return (*function)(from++); });
    } else {
        std::generate(samples.begin(), samples.end(), [&] { return voice(from++); });
    }
    return samples;
}

int64_t find(const Samples& heard, size_t from, const Samples& played) {
    if (from + kProbeFrames > heard.size()) {
        return -1;
    }
    const auto probe = heard.begin() + static_cast<std::ptrdiff_t>(from);
    const auto found = std::search(played.begin(), played.end(), probe, probe + kProbeFrames);
    return found == played.end() ? -1 : found - played.begin();
}

int64_t findWhole(const Samples& part, const Samples& whole) {
    const auto found = std::search(whole.begin(), whole.end(), part.begin(), part.end());
    return found == whole.end() ? -1 : found - whole.begin();
}

std::vector<Gap> findGaps(const Samples& recording, const Voice& voice) {
    constexpr int64_t kLongestGap = 4800;
    std::vector<Gap> gaps;
    int64_t frame = 0;  // of the voice
    for (size_t i = firstSound(recording); i < recording.size(); ++i, ++frame) {
        if (recording[i] == voice(frame)) {
            continue;
        }
        const int64_t missing = find(recording, i, render(voice, frame, kLongestGap));
        gaps.push_back({static_cast<int64_t>(i), missing});
        if (missing < 0) {
            break;
        }
        frame += missing;
    }
    return gaps;
}

int breaksIn(const Samples& recording, size_t from, size_t to) {
    int breaks = 0;
    for (size_t i = from + 1; i < to; ++i) {
        breaks += recording[i] == ramp(recording[i - 1] + 1) ? 0 : 1;
    }
    return breaks;
}

int breaksIn(const Samples& recording) {
    return breaksIn(recording, firstSound(recording), recording.size());
}

int upwardCrossings(const Samples& samples, size_t from, size_t to) {
    int upward = 0;
    for (size_t i = from + 1; i < to; ++i) {
        upward += samples[i - 1] < 0 && samples[i] >= 0 ? 1 : 0;
    }
    return upward;
}

int largestSecondDifference(const Samples& samples, size_t from, size_t to) {
    int largest = 0;
    for (size_t i = from + 2; i < to; ++i) {
        largest = std::max(largest, std::abs(samples[i] - 2 * samples[i - 1] + samples[i - 2]));
    }
    return largest;
}

size_t firstSound(const Samples& samples) {
    const auto first =
        std::find_if(samples.begin(), samples.end(), [](int16_t sample) { return sample != 0; });
    return static_cast<size_t>(first - samples.begin());
}

Samples readWav(const std::string& path) {
    const std::string bytes = contents(path);
    if (bytes.compare(0, 4, "RIFF") != 0) {
        throw std::runtime_error(path + " is not a WAV file");
    }
    const size_t format = findChunk(bytes, "fmt ");
    const auto channels = take<uint16_t>(bytes, format + 2);
    if (take<uint32_t>(bytes, format + 4) != kRate || take<uint16_t>(bytes, format + 14) != 16) {
        throw std::runtime_error(path + " is not 16 bit at 48000 Hz");
    }
    const size_t data = findChunk(bytes, "data");
    const size_t frameBytes = channels * sizeof(int16_t);
    Samples samples(take<uint32_t>(bytes, data - 4) / frameBytes);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = take<int16_t>(bytes, data + i * frameBytes);
    }
    return samples;
}

void writeWav(const std::string& path, const Samples& samples) {
    const auto dataBytes = static_cast<uint32_t>(samples.size() * sizeof(int16_t));
    std::string bytes = "RIFF";
    append(&bytes, 36 + dataBytes);
    bytes += "WAVEfmt ";
    append(&bytes, uint32_t{16});
    append(&bytes, uint16_t{1});  // PCM
    append(&bytes, uint16_t{1});  // channels
    append(&bytes, uint32_t{kRate});
    append(&bytes, static_cast<uint32_t>(kRate * sizeof(int16_t)));
    append(&bytes, uint16_t{sizeof(int16_t)});
    append(&bytes, uint16_t{16});  // bits
    bytes += "data";
    append(&bytes, dataBytes);
    bytes.append(reinterpret_cast<const char*>(samples.data()), dataBytes);
    put(path, bytes);
}

}  // namespace board
